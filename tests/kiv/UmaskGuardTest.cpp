#include "Kiv/UmaskGuard.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
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
        try {
          UmaskGuard const nested(~mask & 0777);
          if (currentUmask() != (~mask & 0777)) mixed = true;
          throw i;
        } catch (int) {
        }
        if (currentUmask() != mask) mixed = true;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(mixed);
}

// In a child, which can open a window of its own; a lock inherited locked would hang it.
void expectInChild(unsigned mask) {
  Veltro::inChild([mask] {
    EXPECT_EQ(mask, currentUmask());
    { UmaskGuard const window; }
    EXPECT_EQ(mask, currentUmask());
  });
}

TEST_F(UmaskGuardTest, aChildNeverStartsInAnotherThreadsWindow) {
  std::atomic<bool> stop{false};
  std::thread busy([&stop] {
    while (!stop) UmaskGuard const window;
  });
  for (int i = 0; i < 200; ++i) expectInChild(027);
  stop = true;
  busy.join();
}

TEST_F(UmaskGuardTest, aChildOfAWindowEndsItForItself) {
  pid_t child = 0;
  {
    UmaskGuard const window(077);
    expectInChild(077);
    child = ::fork();
  }
  if (child == 0) {
    ::alarm(20);
    // Another thread gets in only when the child's lock was truly released.
    std::thread([] { UmaskGuard const window; }).join();
    ::_exit(currentUmask() == 027 ? 0 : 1);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(0, status);
}

}  // namespace
}  // namespace Kiv
