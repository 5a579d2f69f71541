#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <thread>

#include "Veltro/Exception.h"
#include "tests/support/NetworkNamespaces.h"
#include "tests/util/UtilTest.h"

namespace Veltro {
namespace {

struct NamespacedSocketTest : UtilTest {
  void SetUp() override {
    if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to make namespaces";
  }
  /// In a child with named namespaces of its own, on a thread that may be in another namespace than
  /// the first, whose /proc/self is.
  void onThread(std::function<void()> const& body) {
    inChild([&] {
      ASSERT_TRUE(enterOwnMounts());
      hideNamedNamespaces();
      std::thread(body).join();
    });
  }
  /// Opens one socket in the namespace that `prepare` says, and one that there cannot be.
  void opens(std::function<ino_t()> const& prepare, std::vector<std::string> const& expected) {
    onThread([&] {
      ino_t const wanted = prepare();
      ino_t const home = ownNamespace();
      int const fd = Util::socket(handler, AF_INET, SOCK_DGRAM, 0);
      int const itsNamespace = ::ioctl(fd, SIOCGSKNS);
      struct stat info {};
      EXPECT_EQ(0, ::fstat(itsNamespace, &info));
      EXPECT_EQ(wanted, info.st_ino);
      ::close(itsNamespace);
      ::close(fd);
      EXPECT_EQ(-1, Util::socket(handler, 9999, SOCK_DGRAM, 0));
      EXPECT_EQ(EAFNOSUPPORT, errno);
      EXPECT_EQ(home, ownNamespace());
      EXPECT_EQ(descriptors, openDescriptors());
      EXPECT_EQ(expected, records());
    });
  }

  std::array<int, 2> const next = nextDescriptors();
};

TEST_F(NamespacedSocketTest, livesInTheDefaultNamespaceOrWhereTheThreadIs) {
  std::string const second = std::to_string(next[1]);
  std::string const going = "2 Util::socket() setnsByName() to default";
  std::string const failing = going + " failure: setnsByName(default): setns: Invalid argument";
  std::string const opened = "2 Util::socket() success opening ";
  std::string const refused = "2 Util::socket() failed to open ";
  std::string const reason = " reason: Address family not supported by protocol";
  opens([] { return makeNamespace("default"); }, {going, opened + "default socket: " + second,
                                                  going, refused + "default socket: -1" + reason});
  auto const cannotBeEntered = [] {
    makeEmptyFile(namespaceFile("default"));
    return ownNamespace();
  };
  opens(cannotBeEntered, {going, failing, opened + "local socket: " + second, going, failing,
                          refused + "local socket: -1" + reason});
  auto const noWayBack = [] {
    makeNamespace("default");
    failSystemCall(SYS_openat, EMFILE);
    return ownNamespace();
  };
  opens(noWayBack,
        {opened + "local socket, sd:" + nextDescriptor, refused + "local socket, sd:-1" + reason});
}

TEST_F(NamespacedSocketTest, aThreadThatCannotGetBackThrowsAndLeavesNothingOpen) {
  onThread([this] {
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
