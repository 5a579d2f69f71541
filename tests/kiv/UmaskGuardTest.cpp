#include "Kiv/UmaskGuard.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <optional>
#include <thread>
#include <vector>

#include "tests/support/Child.h"

namespace Kiv {
namespace {

unsigned currentUmask() {
  unsigned const mask = ::umask(0);
  ::umask(mask);
  return mask;
}

struct UmaskGuardTest : testing::Test {
  UmaskGuardTest() { ::umask(027); }
  ~UmaskGuardTest() override {
    EXPECT_EQ(027u, currentUmask());
    ::umask(022);
  }
};

TEST_F(UmaskGuardTest, threadsNeverLoseTheUmaskNorMixTheirWindows) {
  std::atomic<bool> mixed{false};
  std::vector<std::thread> threads;
  for (unsigned mask : {0u, 007u, 077u, 022u}) {
    threads.emplace_back([mask, &mixed] {
      for (int i = 0; i < 20000; ++i) {
        UmaskGuard const window(mask);
        {
          UmaskGuard const nested(~mask & 0777);
          if (currentUmask() != (~mask & 0777)) mixed = true;
        }
        if (currentUmask() != mask) mixed = true;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(mixed);
}

TEST_F(UmaskGuardTest, aChildStartsInNoOtherThreadsWindowAndEndsItsOwn) {
  std::atomic<bool> stop{false};
  std::thread busy([&stop] {
    while (!stop) UmaskGuard const window;
  });
  for (int i = 0; i < 200; ++i) {
    Veltro::inChild([] {
      EXPECT_EQ(027u, currentUmask());
      { UmaskGuard const window; }  // a lock inherited locked would hang it
      EXPECT_EQ(027u, currentUmask());
    });
  }
  stop = true;
  busy.join();

  std::optional<UmaskGuard> window(077);
  Veltro::inChild([&] {
    window.reset();
    // Another thread gets in only when the child's lock was truly released.
    std::thread([] { UmaskGuard const other; }).join();
    EXPECT_EQ(027u, currentUmask());
  });
  window.reset();
}

}  // namespace
}  // namespace Kiv
