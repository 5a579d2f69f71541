#pragma once
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "Veltro/UtilCpp.h"
#include "tests/support/Child.h"
#include "tests/support/RecordingHandler.h"
#include "tests/support/TempDir.h"

namespace Veltro {

using testing::Contains;
using testing::ElementsAre;

/// A folder, a recording handler, and the promise that the umask and all descriptors are left as
/// they were.
struct UtilTest : testing::Test {
  UtilTest() { ::umask(027); }
  ~UtilTest() override {
    EXPECT_EQ(027u, ::umask(022)) << "the umask was lost";
    EXPECT_EQ(descriptors, openDescriptors()) << "a descriptor was left open";
  }
  /// What was recorded since the last call.
  std::vector<std::string> records() { return std::exchange(handler.records, {}); }
  /// Mode bits, 0 when there is nothing.
  static unsigned mode(std::string const& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777u : 0;
  }

  int const descriptors = openDescriptors();
  std::string const nextDescriptor = std::to_string(nextDescriptors()[0]);
  TempDir folder;
  RecordingHandler handler;
};

}  // namespace Veltro
