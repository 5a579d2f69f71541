#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>
#include <thread>

#include "Veltro/Exception.h"
#include "Veltro/UtilCpp.h"
#include "tests/support/Child.h"
#include "tests/support/NetworkNamespaces.h"
#include "tests/support/RecordingHandler.h"

namespace Veltro {
namespace {

using testing::ElementsAre;

ino_t namespaceOf(int socket) {
  int const fd = ::ioctl(socket, SIOCGSKNS);
  struct stat info {};
  EXPECT_EQ(0, ::fstat(fd, &info));
  ::close(fd);
  return info.st_ino;
}

struct NamespacedSocketTest : testing::Test {
  void SetUp() override {
    if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to make namespaces";
  }
  void enter() {
    ASSERT_TRUE(enterOwnMounts());
    hideNamedNamespaces();
  }
  int open() { return Util::socket(handler, AF_INET, SOCK_DGRAM, 0); }

  int const descriptors = openDescriptors();
  std::array<int, 2> const next = nextDescriptors();
  std::string const first = std::to_string(next[0]);
  std::string const second = std::to_string(next[1]);
  std::string const going = "2 Util::socket() setnsByName() to default";
  RecordingHandler handler;
};

TEST_F(NamespacedSocketTest, livesInTheDefaultNamespaceAndTheThreadInItsOwn) {
  inChild([this] {
    enter();
    ino_t const byDefault = makeNamespace("default");
    std::thread([&] {  // in another namespace than the first thread, whose /proc/self is
      ASSERT_EQ(0, ::unshare(CLONE_NEWNET));
      ino_t const home = ownNamespace();
      int const fd = open();
      EXPECT_EQ(byDefault, namespaceOf(fd));
      EXPECT_EQ(home, ownNamespace());
      ::close(fd);
      EXPECT_EQ(-1, Util::socket(handler, 9999, SOCK_DGRAM, 0));
      EXPECT_EQ(EAFNOSUPPORT, errno);
      EXPECT_EQ(home, ownNamespace());
    })
        .join();
    EXPECT_EQ(descriptors, openDescriptors());
    EXPECT_THAT(
        handler.records,
        ElementsAre(going, "2 Util::socket() success opening default socket: " + second, going,
                    "2 Util::socket() failed to open default socket: -1 reason: Address "
                    "family not supported by protocol"));
  });
}

TEST_F(NamespacedSocketTest, isLocalWhereTheDefaultCannotBeEntered) {
  inChild([this] {
    enter();
    makeEmptyFile(namespaceFile("default"));
    std::string const failing = going + " failure: setnsByName(default): setns: Invalid argument";
    ino_t const home = ownNamespace();
    int fd = open();
    EXPECT_EQ(home, namespaceOf(fd));
    ::close(fd);
    EXPECT_EQ(-1, Util::socket(handler, 9999, SOCK_DGRAM, 0));

    failSystemCall(SYS_close, EIO);
    fd = open();
    EXPECT_THAT(
        std::exchange(handler.records, {}),
        ElementsAre(going, failing, "2 Util::socket() success opening local socket: " + second,
                    going, failing,
                    "2 Util::socket() failed to open local socket: -1 reason: Address family not "
                    "supported by protocol",
                    going, failing,
                    "2 Util::socket() success opening local socket: " + std::to_string(fd),
                    "2 Util::socket() failed to close( localNsFd ): Input/output error"));
  });
}

TEST_F(NamespacedSocketTest, isLocalWithoutAWayBack) {
  inChild([this] {
    enter();
    makeNamespace("default");
    ino_t const home = ownNamespace();
    ASSERT_EQ(0, ::mount("none", "/proc", "tmpfs", 0, nullptr));
    int const fd = open();
    EXPECT_EQ(home, namespaceOf(fd));
    ::close(fd);
    EXPECT_EQ(-1, Util::socket(handler, 9999, SOCK_DGRAM, 0));
    EXPECT_EQ(EAFNOSUPPORT, errno);
    EXPECT_THAT(handler.records,
                ElementsAre("2 Util::socket() success opening local socket, sd:" + first,
                            "2 Util::socket() failed to open local socket, sd:-1 reason: Address "
                            "family not supported by protocol"));
  });
}

TEST_F(NamespacedSocketTest, aThreadThatCannotGetBackThrowsAndLeavesNothingOpen) {
  inChild([this] {
    enter();
    makeNamespace("default");
    // The first record is written between keeping the way back and leaving.
    handler.onRecord = [this](std::string const&) { ::dup2(0, next[0]); };
    EXPECT_THAT(
        [this] { open(); },
        testing::Throws<RuntimeException>(testing::Property(
            &RuntimeException::message,
            "Util::socket() failed to switch back to caller's namespace: Invalid argument")));
    EXPECT_EQ(descriptors, openDescriptors());
  });
}

}  // namespace
}  // namespace Veltro
