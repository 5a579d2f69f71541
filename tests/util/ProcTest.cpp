#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include "tests/util/UtilTest.h"

namespace Veltro {
namespace {

using ProcTest = UtilTest;

TEST_F(ProcTest, titlesAndArgumentsOfAProcessThatMayVanish) {
  inChild([this] {
    pid_t const self = ::getpid();
    for (char const* const name : {"Name:\t) S 1 (", ""}) {
      ASSERT_EQ(0, ::prctl(PR_SET_NAME, name));
      EXPECT_EQ(name, Util::readProcTitle(self));
      EXPECT_EQ(name, Util::readProcTitle(handler, self));
    }
    std::string const arguments = Util::readPidCmdline(handler, self);
    EXPECT_NE(std::string::npos, arguments.find("util_tests"));
    EXPECT_EQ('\0', arguments.back()) << "as the kernel gives it";
    EXPECT_EQ("", Util::readProcTitle(handler, 0));
    EXPECT_EQ("", Util::readPidCmdline(handler, 0));
    failSystemCall(SYS_read, ESRCH);
    EXPECT_EQ("", Util::readProcTitle(handler, self));
    std::string const error = "1 Util::readProcTitle() error - ";
    EXPECT_THAT(records(),
                ElementsAre("5 Util::readProcTitle() success - title: Name:\t) S 1 (",
                            error + "Read 0 length title for pid: " + std::to_string(self),
                            "5 Util::fileRead() read '" + arguments + "'",
                            error + "Couldn't access status file: /proc/0/status",
                            "5 Util::fileRead() unable to open file /proc/0/cmdline",
                            error + "Couldn't find proc title for pid: " + std::to_string(self) +
                                " stream state: 7"));
    EXPECT_EQ(descriptors, openDescriptors());
  });
}

TEST_F(ProcTest, theFirstHolderOfASocketIsFound) {
  std::string const name = "veltro-test-" + std::to_string(::getpid());
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, name.size());  // behind a zero byte: a name without a file
  ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
  pid_t const parent = ::getpid();
  inChild([&] {
    EXPECT_EQ(parent, Util::readSocketPid(handler, name)) << "not the second";
    EXPECT_THAT(handler.records,
                Contains("5 Util::readProcFd() found owner pid: " + std::to_string(parent)));
  });
  ::close(fd);
  EXPECT_EQ(0, Util::readSocketPid(handler, name));
  EXPECT_EQ("1 Util::readSocketPid() unable to find inode for socket: " + name,
            handler.records.back());
}

// A /proc of our own making. The fuzz target `proc_text` holds the reading of a line to a
// reference.
TEST_F(ProcTest, whatStandsInProcIsNotTrusted) {
  if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to mount over /proc";
  inChild([this] {
    ASSERT_TRUE(enterOwnMounts());
    ASSERT_EQ(0, ::mount("none", "/proc", "tmpfs", 0, nullptr));
    ASSERT_EQ(0, ::mknod("/proc/socket", S_IFSOCK | 0666, 0));
    struct stat info {};
    ASSERT_EQ(0, ::stat("/proc/socket", &info));
    auto const holds = [](std::string const& process, char const* fd, char const* target) {
      Util::mkpath("/proc/" + process + "/fd", 0755);
      EXPECT_EQ(0, ::symlink(target, ("/proc/" + process + "/fd/" + fd).c_str()));
    };
    for (char const* entry : {"self", "12abc", "99999999999"}) holds(entry, "0", "/proc/socket");
    holds("8", "not-a-number", "/proc/socket");
    holds("9", "5", "/proc/vanished");
    Util::mkpath("/proc/10", 0755);
    Util::mkpath("/proc/net", 0755);
    Util::fileWrite(handler, "/proc/net/unix",
                    "Num       RefCount Protocol Flags    Type St Inode Path\n"
                    "ffff0000: 00000002 00000000 00010000 0001 01 " +
                        std::to_string(info.st_ino) + " @/run/x\n",
                    false);
    EXPECT_EQ(0, Util::readSocketPid(handler, "Path")) << "a word of the header";
    EXPECT_EQ(0, Util::readSocketPid(handler, "run"));
    auto const noProcess = [](std::string const& name) {
      return Contains("1 Util::readProcFd() could not convert pid directory string '" + name +
                      "' to U32");
    };
    EXPECT_THAT(
        records(),
        testing::AllOf(
            Contains("1 Util::readProcNetUnix() Couldn't convert inode 'Inode' to U32."),
            noProcess("12abc"), noProcess("99999999999"), testing::Not(noProcess("self")),
            Contains("1 DirNode::DirNode() failed to open /proc/10/fd errno: 2"),
            Contains("5 Util::readProcFd() stat failed: /proc/9/fd/5: No such file or directory")));
    holds("42", "3", "/proc/socket");
    EXPECT_EQ(42, Util::readSocketPid(handler, "run"));
    EXPECT_EQ(descriptors, openDescriptors());
  });
}

}  // namespace
}  // namespace Veltro
