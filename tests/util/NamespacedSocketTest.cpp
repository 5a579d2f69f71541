#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>
#include <thread>

#include "Veltro/Exception.h"
#include "tests/support/NetworkNamespaces.h"
#include "tests/util/UtilTest.h"

namespace Veltro {
namespace {

using testing::ElementsAre;

struct NamespacedSocketTest : UtilTest {
  void SetUp() override {
    if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to make namespaces";
  }
  static void enter() {
    ASSERT_TRUE(enterOwnMounts());
    hideNamedNamespaces();
  }
  /// Opens one socket in the namespace that is expected, and one that there cannot be.
  void openIn(ino_t expected) {
    ino_t const home = ownNamespace();
    int const fd = Util::socket(handler, AF_INET, SOCK_DGRAM, 0);
    int const itsNamespace = ::ioctl(fd, SIOCGSKNS);
    struct stat info {};
    EXPECT_EQ(0, ::fstat(itsNamespace, &info));
    EXPECT_EQ(expected, info.st_ino);
    ::close(itsNamespace);
    ::close(fd);
    EXPECT_EQ(-1, Util::socket(handler, 9999, SOCK_DGRAM, 0));
    EXPECT_EQ(EAFNOSUPPORT, errno);
    EXPECT_EQ(home, ownNamespace());
    EXPECT_EQ(descriptors, openDescriptors());
  }

  std::array<int, 2> const next = nextDescriptors();
  std::string const second = std::to_string(next[1]);
  std::string const going = "2 Util::socket() setnsByName() to default";
  std::string const reason = " reason: Address family not supported by protocol";
};

TEST_F(NamespacedSocketTest, livesInTheDefaultNamespaceAndTheThreadInItsOwn) {
  inChild([this] {
    enter();
    ino_t const byDefault = makeNamespace("default");
    std::thread([&] {  // in another namespace than the first thread, whose /proc/self is
      ASSERT_EQ(0, ::unshare(CLONE_NEWNET));
      openIn(byDefault);
    })
        .join();
    EXPECT_THAT(handler.records,
                ElementsAre(going, "2 Util::socket() success opening default socket: " + second,
                            going, "2 Util::socket() failed to open default socket: -1" + reason));
  });
}

TEST_F(NamespacedSocketTest, isLocalWhereTheDefaultCannotBeEntered) {
  inChild([this] {
    enter();
    makeEmptyFile(namespaceFile("default"));
    std::string const failing = going + " failure: setnsByName(default): setns: Invalid argument";
    openIn(ownNamespace());
    EXPECT_THAT(
        records(),
        ElementsAre(going, failing, "2 Util::socket() success opening local socket: " + second,
                    going, failing, "2 Util::socket() failed to open local socket: -1" + reason));
    failSystemCall(SYS_close, EIO);
    Util::socket(handler, AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ("2 Util::socket() failed to close( localNsFd ): Input/output error",
              handler.records.back());
  });
}

TEST_F(NamespacedSocketTest, isLocalWithoutAWayBack) {
  inChild([this] {
    enter();
    makeNamespace("default");
    ino_t const home = ownNamespace();
    ASSERT_EQ(0, ::mount("none", "/proc", "tmpfs", 0, nullptr));
    int const fd = Util::socket(handler, AF_INET, SOCK_DGRAM, 0);
    int const itsNamespace = ::ioctl(fd, SIOCGSKNS);
    struct stat info {};
    EXPECT_EQ(0, ::fstat(itsNamespace, &info));
    EXPECT_EQ(home, info.st_ino);
    EXPECT_EQ(-1, Util::socket(handler, 9999, SOCK_DGRAM, 0));
    EXPECT_EQ(EAFNOSUPPORT, errno);
    EXPECT_THAT(handler.records,
                ElementsAre("2 Util::socket() success opening local socket, sd:" + nextDescriptor,
                            "2 Util::socket() failed to open local socket, sd:-1" + reason));
  });
}

TEST_F(NamespacedSocketTest, aThreadThatCannotGetBackThrowsAndLeavesNothingOpen) {
  inChild([this] {
    enter();
    makeNamespace("default");
    // The first record is written between keeping the way back and leaving.
    handler.onRecord = [this](std::string const&) { ::dup2(0, next[0]); };
    EXPECT_THAT(
        [this] { Util::socket(handler, AF_INET, SOCK_DGRAM, 0); },
        testing::Throws<RuntimeException>(testing::Property(
            &RuntimeException::message,
            "Util::socket() failed to switch back to caller's namespace: Invalid argument")));
    EXPECT_EQ(descriptors, openDescriptors());
  });
}

}  // namespace
}  // namespace Veltro
