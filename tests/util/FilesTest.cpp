#include <fcntl.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <thread>

#include "Veltro/Exception.h"
#include "tests/util/UtilTest.h"

namespace Veltro {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using FilesTest = UtilTest;

TEST_F(FilesTest, whatIsWrittenIsReadByEveryone) {
  std::string const path = folder.path("written");
  Util::touch(handler, path);
  EXPECT_EQ(0666u, mode(path));
  for (std::string const& content :
       {std::string(300000, 'x'), std::string("a\0b\n", 4), std::string()}) {
    Util::fileWrite(handler, path, content, false);
    Util::touch(handler, path);
    EXPECT_EQ(content.size(), Util::fileSize(handler, path));
    EXPECT_EQ(content, Util::fileRead(handler, path, true));
    EXPECT_THAT(records(), ElementsAre("5 Util::fileRead() read '" + content + "'"));
  }
  EXPECT_TRUE(Util::fileRemove(handler, path));
  Util::fileWrite(handler, path, "", false);
  EXPECT_EQ(0666u, mode(path));
  // Claims a size of 0.
  EXPECT_THAT(Util::fileRead(handler, "/proc/self/status", true),
              testing::HasSubstr("\nPid:\t" + std::to_string(::getpid()) + "\n"));
}

TEST_F(FilesTest, whatFailsIsRecorded) {
  std::string const good = folder.path("good");
  std::string const none = folder.path("none/file");
  std::string const dir = folder.path();
  std::string const at = nextDescriptor;
  int const closed = std::stoi(at);
  bool quiet = false;
  auto const noDescriptor = [] { failSystemCall(SYS_openat, EMFILE); };
  auto const noClose = [] { failSystemCall(SYS_close, EIO); };
  auto const noRoom = [] {
    ::signal(SIGXFSZ, SIG_IGN);
    limitIs(RLIMIT_FSIZE, 4);
  };
  auto const write = [&](std::string const& path) {
    return [&, path] { Util::fileWrite(handler, path, "content", quiet); };
  };
  struct {
    std::function<void()> breakIt;
    std::function<void()> work;
    std::string record;
    bool throws;
  } const cases[] = {
      {{},
       write(none),
       "0 Util::fileWrite() unable to open " + none + " reason:No such file or directory",
       true},
      {{},
       write(dir),
       "0 Util::fileWrite() unable to open " + dir + " reason:Is a directory",
       true},
      {noDescriptor, write(good),
       "0 Util::fileWrite() unable to open " + good + " reason:Too many open files", true},
      {{},
       write("/dev/full"),
       "0 Util::fileWrite() unable to write to /dev/full reason:No space left on device",
       true},
      {noRoom, write(good),
       "0 Util::fileWrite() wrote:4 bytes to file:" + good + " but wanted to write:7", false},
      {noClose, write(good),
       "0 Util::fileWrite() unable to close fd:" + at + " reason:Input/output error", true},
      {noClose, [&] { Util::touch(handler, good); },
       "0 Util::touch() unable to close fd:" + at + " reason:Input/output error", false},
      {{},
       [&] { Util::touch(handler, dir); },
       "0 Util::touch() unable to open " + dir + " reason:Is a directory",
       false},
      {{},
       [&] { EXPECT_EQ("", Util::fileRead(handler, none, true)); },
       "5 Util::fileRead() unable to open file " + none,
       false},
      {{}, [&] { EXPECT_EQ("", Util::fileRead(handler, none, false)); }, "", false},
      {{},
       [&] { EXPECT_EQ("", Util::fileRead(handler, dir, true)); },
       "1 Util::fileRead() failed to read from " + dir,
       false},
      {{},
       [&] { EXPECT_EQ(0u, Util::fileSize(handler, none)); },
       "5 Util::fileSize() unable to stat file " + none + ": No such file or directory",
       false},
      {{},
       [&] { EXPECT_EQ(0u, Util::fileSize(handler, closed)); },
       "5 Util::fileSize() unable to fstat fd " + at + ": Bad file descriptor",
       false},
      {{},
       [&] {
         EXPECT_EQ(-1, Util::truncate(handler, good, closed, 9));
         EXPECT_EQ(EBADF, errno);
       },
       "0 Util::truncate() ftruncate() size:9 error:Bad file descriptor",
       false},
      {{}, [&] { EXPECT_TRUE(Util::fileRemove(handler, folder.path("none"))); }, "", false},
      {{},
       [&] { EXPECT_FALSE(Util::fileRemove(handler, dir)); },
       "0 Util::fileRemove() unlink() error " + dir + ": Is a directory",
       false},
  };
  for (auto const& c : cases) {
    for (bool const quietly : {false, true}) {
      SCOPED_TRACE(c.record);
      inChild([&] {
        quiet = quietly;
        if (c.breakIt) c.breakIt();
        std::string thrown;
        try {
          c.work();
        } catch (RuntimeException const& fault) {
          thrown = "0 " + fault.message();
        }
        EXPECT_EQ(c.record, handler.records.empty() ? "" : handler.records.back());
        EXPECT_LE(handler.records.size(), 1u);
        EXPECT_EQ(c.throws && !quiet ? c.record : "", thrown);
        EXPECT_EQ(027u, ::umask(027));
        EXPECT_TRUE(descriptors == openDescriptors() || ::close(closed) != 0);
      });
    }
  }
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
  EXPECT_THAT(records(), IsEmpty());

  static std::atomic<int> signals{0};
  struct sigaction interrupting {};  // without SA_RESTART
  interrupting.sa_handler = [](int) { ++signals; };
  ::sigaction(SIGUSR1, &interrupting, nullptr);
  std::thread writer([&path, reader = ::pthread_self()] {
    std::ofstream pipe(path);  // returns when the reader is there
    for (int const wanted = signals + 1000; signals < wanted;) ::pthread_kill(reader, SIGUSR1);
    pipe << std::string(100000, 'p');
  });
  EXPECT_EQ(std::string(100000, 'p'), Util::fileRead(handler, path, true));
  writer.join();
}

TEST_F(FilesTest, sizesReachBeyondTwoGigabytes) {
  std::string const path = folder.path("large");
  Util::touch(handler, path);
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
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(FilesTest, aLinkToNowhereIsRemovedAndDoesNotExist) {
  std::string const path = folder.path("dangling");
  ASSERT_EQ(0, ::symlink("/nowhere/at/all", path.c_str()));
  EXPECT_FALSE(Util::fileExists(handler, path));
  EXPECT_TRUE(Util::fileRemove(handler, path));
  EXPECT_TRUE(Util::fileExists(handler, folder.path()));
  std::string const checking = "5 Util::fileExists() checking if ";
  EXPECT_THAT(records(), ElementsAre(checking + path + " exists, stat result:-1",
                                     "5 Util::fileRemove() removed file " + path,
                                     checking + folder.path() + " exists, stat result:0"));
}

TEST_F(FilesTest, threadsThatMakeFilesNeverLoseTheUmask) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      RecordingHandler own;
      for (int i = 0; i < 100; ++i) {
        std::string const path = folder.path(std::to_string(t) + "." + std::to_string(i));
        EXPECT_EQ(0, Util::mkpath(path + "/a", 0777));
        Util::touch(own, path + "/touched");
        Util::fileWrite(own, path + "/a/written", "content", false);
        EXPECT_EQ(0777u, mode(path));
        EXPECT_EQ(0666u, mode(path + "/touched"));
        EXPECT_EQ(0666u, mode(path + "/a/written"));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace Veltro
