#pragma once
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <functional>

#include "tests/support/Child.h"

namespace Veltro {

/// Runs `body` in a child that sees an empty file system at /var, which vanishes with it: counter
/// files have a fixed place. `options` are those of the mount, as "size=64k". Without the privilege
/// the test is skipped.
inline void inOwnVar(std::function<void()> const& body, char const* options = "") {
  if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to hide /var";
  inChild([&] {
    ASSERT_TRUE(enterOwnMounts());
    ASSERT_EQ(0, ::mount("none", "/var", "tmpfs", 0, options));
    body();
  });
}

}  // namespace Veltro
