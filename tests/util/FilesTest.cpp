#include <fcntl.h>
#include <sys/syscall.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <thread>

#include "Veltro/Exception.h"
#include "tests/util/UtilTest.h"

namespace Veltro {
namespace {

using FilesTest = UtilTest;

TEST_F(FilesTest, whatIsWrittenIsReadByEveryone) {
  std::string const path = folder.path("written");
  for (std::string const& content : {std::string(300000, 'x'), std::string("a\0b\n", 4)}) {
    Util::fileWrite(handler, path, content, false);
    Util::touch(handler, path);
    EXPECT_EQ(content.size(), Util::fileSize(handler, path));
    EXPECT_EQ(content, Util::fileRead(handler, path, true));
    EXPECT_THAT(records(), ElementsAre("5 Util::fileRead() read '" + content + "'"));
  }
  EXPECT_EQ(0666u, mode(path));
  // Claims a size of 0.
  EXPECT_THAT(Util::fileRead(handler, "/proc/self/status", true),
              testing::HasSubstr("\nPid:\t" + std::to_string(::getpid()) + "\n"));
}

TEST_F(FilesTest, eachSaysHowItWent) {
  std::string const none = folder.path("none/file");
  std::string const dangling = folder.path("dangling");
  std::string const dir = folder.path();
  int const closed = nextDescriptors()[0];
  ASSERT_EQ(0, ::symlink("/nowhere/at/all", dangling.c_str()));
  Util::touch(handler, dir);
  EXPECT_EQ("", Util::fileRead(handler, none, true));
  EXPECT_EQ("", Util::fileRead(handler, none, false));
  EXPECT_EQ("", Util::fileRead(handler, dir, true));
  EXPECT_EQ(0u, Util::fileSize(handler, none));
  EXPECT_EQ(0u, Util::fileSize(handler, closed));
  EXPECT_EQ(-1, Util::truncate(handler, dir, closed, 9));
  EXPECT_EQ(EBADF, errno);
  EXPECT_TRUE(Util::fileExists(handler, dir));
  EXPECT_FALSE(Util::fileExists(handler, dangling));
  EXPECT_TRUE(Util::fileRemove(handler, dangling));
  EXPECT_TRUE(Util::fileRemove(handler, dangling)) << "is gone";
  EXPECT_FALSE(Util::fileRemove(handler, dir));
  EXPECT_THAT(
      records(),
      ElementsAre(
          "0 Util::touch() unable to open " + dir + " reason:Is a directory",
          "5 Util::fileRead() unable to open file " + none,
          "1 Util::fileRead() failed to read from " + dir,
          "5 Util::fileSize() unable to stat file " + none + ": No such file or directory",
          "5 Util::fileSize() unable to fstat fd " + nextDescriptor + ": Bad file descriptor",
          "0 Util::truncate() ftruncate() size:9 error:Bad file descriptor",
          "5 Util::fileExists() checking if " + dir + " exists, stat result:0",
          "5 Util::fileExists() checking if " + dangling + " exists, stat result:-1",
          "5 Util::fileRemove() removed file " + dangling,
          "0 Util::fileRemove() unlink() error " + dir + ": Is a directory"));
}

TEST_F(FilesTest, whatCannotBeWrittenIsToldAndThrown) {
  auto const tells = [this](std::string const& path, std::string const& fault, bool throws = true) {
    std::string const record = "Util::fileWrite() " + fault;
    std::string thrown;
    try {
      Util::fileWrite(handler, path, "content", false);
    } catch (RuntimeException const& exception) {
      thrown = exception.message();
    }
    EXPECT_EQ(throws ? record : "", thrown);
    EXPECT_THAT(records(), ElementsAre("0 " + record));
    EXPECT_NO_THROW(Util::fileWrite(handler, path, "content", true));
    EXPECT_EQ(1u, records().size());
  };
  std::string const none = folder.path("none/file");
  std::string const good = folder.path("good");
  tells(none, "unable to open " + none + " reason:No such file or directory");
  tells("/dev/full", "unable to write to /dev/full reason:No space left on device");
  inChild([&] {
    ::signal(SIGXFSZ, SIG_IGN);
    limitIs(RLIMIT_FSIZE, 4);
    tells(good, "wrote:4 bytes to file:" + good + " but wanted to write:7", false);
    failSystemCall(SYS_close, EIO);
    limitIs(RLIMIT_FSIZE, 7);
    tells(good, "unable to close fd:" + nextDescriptor + " reason:Input/output error");
  });
}

TEST_F(FilesTest, aPathWithAZeroByteIsNotTheFileOfItsBeginning) {
  std::string const victim = folder.path("victim");
  std::string const path = victim + std::string("\0.txt", 5);
  Util::fileWrite(handler, victim, "kept", false);
  EXPECT_THROW(Util::fileWrite(handler, path, "lost", false), RuntimeException);
  Util::fileRemove(handler, path);
  EXPECT_FALSE(Util::fileExists(handler, path));
  EXPECT_EQ("", Util::fileRead(handler, path, true));
  EXPECT_EQ(-1, Util::mkpath(path, 0755));
  EXPECT_EQ("kept", Util::fileRead(handler, victim, true));
}

TEST_F(FilesTest, aPipeIsReadToItsEndThroughSignalsAndNotWaitedForWhenTouched) {
  std::string const path = folder.path("fifo");
  ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
  Util::touch(handler, path);
  static std::atomic<int> signals{0};
  struct sigaction interrupting {};  // without SA_RESTART
  interrupting.sa_handler = [](int) { ++signals; };
  ::sigaction(SIGUSR1, &interrupting, nullptr);
  std::thread writer([&path, reader = ::pthread_self()] {
    std::ofstream pipe(path);  // returns when the reader is there
    while (signals < 1000) ::pthread_kill(reader, SIGUSR1);
    pipe << "content";
  });
  EXPECT_EQ("content", Util::fileRead(handler, path, true));
  writer.join();
}

TEST_F(FilesTest, sizesReachBeyondTwoGigabytes) {
  std::string const path = folder.path("large");
  Util::touch(handler, path);
  EXPECT_EQ(0666u, mode(path));
  ASSERT_EQ(0, ::truncate(path.c_str(), (off_t{1} << 36) + 1));
  EXPECT_EQ((U64{1} << 36) + 1, Util::fileSize(handler, path));
  if (sizeof(void*) == 4) {  // no string holds it
    EXPECT_EQ(0u, Util::fileRead(handler, path, true).size());
    EXPECT_THAT(records(), ElementsAre("1 Util::fileRead() failed to read from " + path));
  }
  int const fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(0, Util::truncate(handler, path, fd, 4294967295u));
  EXPECT_EQ(4294967295u, Util::fileSize(handler, fd));
  ::close(fd);
}

}  // namespace
}  // namespace Veltro
