#include "Kiv/UmaskGuard.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Kiv {
namespace {

unsigned currentUmask() {
  unsigned const mask = ::umask(0);
  ::umask(mask);
  return mask;
}

struct UmaskGuardTest : testing::Test {
  UmaskGuardTest() { ::umask(027); }
  ~UmaskGuardTest() override { ::umask(022); }
};

TEST_F(UmaskGuardTest, nestsAndRestoresOnEveryPath) {
  {
    UmaskGuard const outer;
    EXPECT_EQ(0u, currentUmask());
    try {
      UmaskGuard const inner(077);
      EXPECT_EQ(077u, currentUmask());
      throw std::runtime_error("out of the inner window");
    } catch (std::runtime_error const&) {
    }
    EXPECT_EQ(0u, currentUmask());
  }
  EXPECT_EQ(027u, currentUmask());
}

TEST_F(UmaskGuardTest, threadsNeverLoseTheUmaskNorMixTheirWindows) {
  std::atomic<bool> mixed{false};
  std::vector<std::thread> threads;
  for (unsigned mask : {0u, 007u, 077u, 022u}) {
    threads.emplace_back([mask, &mixed] {
      for (int i = 0; i < 20000; ++i) {
        UmaskGuard const window(mask);
        UmaskGuard const nested(mask);
        if (currentUmask() != mask) mixed = true;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(mixed);
  EXPECT_EQ(027u, currentUmask());
}

// The child's exit code: 0 when its umask is `mask` and it can open a window of its own.
int childSees(unsigned mask) {
  pid_t const child = ::fork();
  if (child == 0) {
    ::alarm(20);  // a lock inherited locked would hang it
    bool const seen = currentUmask() == mask;
    { UmaskGuard const window; }
    ::_exit(seen && currentUmask() == mask ? 0 : 1);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  return status;
}

TEST_F(UmaskGuardTest, aChildNeverStartsInAnotherThreadsWindow) {
  std::atomic<bool> stop{false};
  std::thread busy([&stop] {
    while (!stop) UmaskGuard const window;
  });
  for (int i = 0; i < 200; ++i) EXPECT_EQ(0, childSees(027));
  stop = true;
  busy.join();
}

TEST_F(UmaskGuardTest, aChildOfAWindowEndsItForItself) {
  pid_t child = 0;
  {
    UmaskGuard const window(077);
    EXPECT_EQ(0, childSees(077));
    child = ::fork();
  }
  if (child == 0) {
    ::alarm(20);
    int status = -1;
    // Another thread of the child gets in only when the child's lock was truly released.
    std::thread([&status] { status = childSees(027); }).join();
    ::_exit(status == 0 ? 0 : 1);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(0, status);
}

}  // namespace
}  // namespace Kiv
