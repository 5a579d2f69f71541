#include "Veltro/ThreadCpp.h"

#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "Veltro/ForkHandlerCpp.h"
#include "tests/support/Asserts.h"
#include "tests/support/Child.h"

namespace Veltro {
namespace {

std::string kernelName() {
  char name[16];
  ::pthread_getname_np(::pthread_self(), name, sizeof name);
  return name;
}

TEST(ThreadTest, aNameIsAskedForOnceAndRemembered) {
  std::string const before = threadName();
  threadNameIs("renamed");
  EXPECT_EQ(before, kernelName()) << "the main thread's is the process's, and stays";
  EXPECT_EQ(before, threadName());
  std::thread([&before] {
    EXPECT_EQ(before, threadName());
    ::pthread_setname_np(::pthread_self(), "elsewhere");
    EXPECT_EQ(before, threadName()) << "asked the kernel again";
    threadNameIs("fifteen letters");
    EXPECT_EQ("fifteen letters", kernelName());
    EXPECT_THAT([] { threadNameIs("sixteen letters!"); },
                asserts("Veltro/ThreadCpp", "threadNameIs",
                        "Veltro::threadNameIs() pthread_setname_np() failed:34 for "
                        "name:sixteen letters!"));
    EXPECT_STREQ("fifteen letters", threadName());
    threadNameIs("");
    ::pthread_setname_np(::pthread_self(), "again");
    EXPECT_STREQ("again", threadName()) << "an empty name is no answer to remember";
  }).join();
}

TEST(ThreadTest, theMainThreadIsTheOneWhoseIdIsTheProcesses) {
  EXPECT_TRUE(isMainThread());
  std::thread([] {
    EXPECT_FALSE(isMainThread());
    EXPECT_EQ(::syscall(SYS_gettid), Veltro::gettid());
    inChild([] {
      EXPECT_TRUE(isMainThread()) << "a child's only thread is its main one";
      EXPECT_TRUE(Platform::isForkedChild());
      inChild([] { EXPECT_TRUE(Platform::isForkedChild()); });
    });
  }).join();
  EXPECT_FALSE(Platform::isForkedChild());
}

TEST(ForkDeathTest, aLibraryThatCannotWatchForksDoesNotRun) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers need the address space that this test takes away";
#endif
  // The C library takes handlers until there is no memory for more.
  EXPECT_DEATH(
      {
        limitIs(RLIMIT_AS, 256u << 20);
        for (;;) Platform::setupHandler();
      },
      "Veltro failed to register atfork handler, reason: .*\n.*Assertion `false && \"Failed to "
      "register Veltro atfork handler\"' failed");
}

}  // namespace
}  // namespace Veltro
