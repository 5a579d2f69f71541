#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <csignal>
#include <cstring>
#include <fstream>

#include "tests/util/UtilTest.h"

namespace Veltro {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using ProcTest = UtilTest;

/// Binds a local socket; a name that begins with a zero byte has no file.
int boundSocket(std::string const& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name.data(), name.size());
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  auto const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  EXPECT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&address), length)) << name;
  return fd;
}

/// A child that ends when this does.
struct Sleeper {
  Sleeper() : pid(::fork()) {
    if (pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (;;) ::pause();
    }
  }
  ~Sleeper() {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
  pid_t const pid;
};

TEST_F(ProcTest, titles) {
  std::string const self = std::to_string(::getpid());
  struct {
    char const* name;
    char const* title;
  } const cases[] = {
      {"a) S 1 (b", "a) S 1 (b"}, {"Name:\tx", "Name:\tx"}, {"line\nbreak", "line\\nbreak"}};
  char was[16];
  ::prctl(PR_GET_NAME, was);
  for (auto const& c : cases) {
    ASSERT_EQ(0, ::prctl(PR_SET_NAME, c.name));
    EXPECT_EQ(c.title, Util::readProcTitle(handler, ::getpid()));
    EXPECT_EQ(c.title, Util::readProcTitle(::getpid()));
    EXPECT_THAT(records(),
                ElementsAre(std::string("5 Util::readProcTitle() success - title: ") + c.title));
  }
  ::prctl(PR_SET_NAME, "");
  EXPECT_EQ("", Util::readProcTitle(handler, ::getpid()));
  EXPECT_THAT(records(),
              ElementsAre("1 Util::readProcTitle() error - Read 0 length title for pid: " + self));
  ::prctl(PR_SET_NAME, was);
  EXPECT_THAT(Util::readPidCmdline(handler, ::getpid()), testing::MatchesRegex(".*util_tests.*"));
  EXPECT_EQ('\0', Util::readPidCmdline(handler, ::getpid()).back()) << "as the kernel gives it";
}

TEST_F(ProcTest, aProcessMayVanishBeforeAndWhileItIsRead) {
  pid_t const gone = Sleeper().pid;
  std::string const path = "/proc/" + std::to_string(gone);
  EXPECT_EQ("", Util::readProcTitle(handler, gone));
  EXPECT_EQ("", Util::readPidCmdline(handler, gone));
  EXPECT_THAT(records(),
              ElementsAre("1 Util::readProcTitle() error - Couldn't access status file: " + path +
                              "/status",
                          "5 Util::fileRead() unable to open file " + path + "/cmdline"));
  inChild([this] {
    failSystemCall(SYS_read, ESRCH);
    EXPECT_EQ("", Util::readProcTitle(handler, ::getppid()));
    EXPECT_EQ("1 Util::readProcTitle() error - Couldn't find proc title for pid: " +
                  std::to_string(::getppid()) + " stream state: 7",
              handler.records.back());
    EXPECT_EQ(descriptors, openDescriptors());
  });
}

TEST_F(ProcTest, theFirstHolderOfASocketIsFound) {
  std::string const name = "veltro-test-" + std::to_string(::getpid());
  EXPECT_EQ(0, Util::readSocketPid(handler, name));
  EXPECT_EQ("1 Util::readSocketPid() unable to find inode for socket: " + name,
            handler.records.back());
  int const fd = boundSocket('\0' + name);
  Sleeper const secondHolder;
  EXPECT_EQ(::getpid(), Util::readSocketPid(handler, name));
  EXPECT_EQ("5 Util::readProcFd() found owner pid: " + std::to_string(::getpid()),
            *std::find_if(handler.records.rbegin(), handler.records.rend(),
                          [](auto const& record) { return record.find("found") != record.npos; }));
  ::close(fd);
  EXPECT_EQ(secondHolder.pid, Util::readSocketPid(handler, name));
}

/// A /proc of our own making, in a process with mounts of its own.
struct FakeProc {
  FakeProc() {
    EXPECT_TRUE(enterOwnMounts());
    EXPECT_EQ(0, ::mount("none", "/proc", "tmpfs", 0, nullptr));
    Util::mkpath("/proc/net", 0755);
    ::close(boundSocket("/proc/socket"));
    std::ofstream("/proc/file") << "no socket";
  }
  static void holds(std::string const& process, std::string const& fd, std::string const& target) {
    Util::mkpath("/proc/" + process + "/fd", 0755);
    EXPECT_EQ(0, ::symlink(target.c_str(), ("/proc/" + process + "/fd/" + fd).c_str()));
  }
  static std::string inode(char const* path) {
    struct stat info {};
    EXPECT_EQ(0, ::stat(path, &info));
    return std::to_string(info.st_ino);
  }
};

TEST_F(ProcTest, linesOfTheSocketTable) {
  if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to mount over /proc";
  inChild([this] {
    FakeProc const proc;
    FakeProc::holds("42", "3", "/proc/socket");
    FakeProc::holds("43", "4", "/proc/file");
    std::string const socket = FakeProc::inode("/proc/socket");
    std::string const header = "Num       RefCount Protocol Flags    Type St Inode Path\n";
    std::string const line = header + "ffff0000: 00000002 00000000 00010000 0001 01 ";
    struct {
      char const* name;
      std::string table;
      std::string wanted;
      pid_t pid;
      char const* unconverted;  // the text noted; null when none is
    } const cases[] = {
        {"part of a name", line + socket + " @/run/x\n", "run", 42, nullptr},
        {"a file's inode", line + FakeProc::inode("/proc/file") + " /run/x\n", "/run/x", 0,
         nullptr},
        {"a word of the header", line + socket + " Path\n", "Path", 0, "Inode"},
        {"no path", line + "123456\n", "00010000", 0, "01"},
        {"a blank in the name", line + socket + " a b\n", "a b", 0, "a"},
        {"another's inode in the name", line + "1 a " + socket + " b\n", "b", 0, nullptr},
        {"a line break in the name", line + socket + " new\n1 line\n", "line", 0, ""},
    };
    for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      handler.records.clear();
      std::ofstream("/proc/net/unix") << c.table;
      EXPECT_EQ(c.pid, Util::readSocketPid(handler, c.wanted));
      if (c.unconverted != nullptr) {
        EXPECT_THAT(handler.records,
                    Contains(std::string("1 Util::readProcNetUnix() Couldn't convert inode '") +
                             c.unconverted + "' to U32."));
      }
    }
  });
}

TEST_F(ProcTest, entriesOfProcThatAreNoProcess) {
  if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to mount over /proc";
  inChild([this] {
    FakeProc const proc;
    for (char const* entry : {"self", "12abc", "99999999999"}) {
      FakeProc::holds(entry, "0", "/proc/socket");
    }
    FakeProc::holds("8", "not-a-number", "/proc/socket");
    FakeProc::holds("9", "5", "/proc/vanished");
    Util::mkpath("/proc/10", 0755);
    std::ofstream("/proc/net/unix")
        << "f: 2 0 0 1 01 " << FakeProc::inode("/proc/socket") << " x\n";
    EXPECT_EQ(0, Util::readSocketPid(handler, "x"));
    auto const unconverted = [](std::string const& name) {
      return Contains("1 Util::readProcFd() could not convert pid directory string '" + name +
                      "' to U32");
    };
    EXPECT_THAT(
        records(),
        AllOf(unconverted("12abc"), unconverted("99999999999"), testing::Not(unconverted("self")),
              Contains("1 DirNode::DirNode() failed to open /proc/10/fd errno: 2"),
              Contains("5 Util::readProcFd() stat failed: /proc/9/fd/5: No such file or "
                       "directory")));
    ::umount2("/proc", MNT_DETACH);
    EXPECT_EQ(descriptors, openDescriptors());
    failSystemCall(SYS_openat, EMFILE);
    EXPECT_EQ(0, Util::readSocketPid(handler, "x"));
    EXPECT_THAT(records(),
                ElementsAre("5 Util::readSocketPid() searching for socket name: x",
                            "1 Util::readProcNetUnix() unable to read /proc/net/unix",
                            "1 Util::readSocketPid() unable to find inode for socket: x"));
  });
}

}  // namespace
}  // namespace Veltro
