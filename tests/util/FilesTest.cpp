#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <thread>
#include <vector>

#include "Veltro/Exception.h"
#include "Veltro/UtilCpp.h"
#include "tests/support/Child.h"
#include "tests/support/RecordingHandler.h"
#include "tests/support/TempDir.h"

namespace Veltro {
namespace {

using Records = std::vector<std::string>;
using testing::ElementsAre;
using testing::IsEmpty;

struct FilesTest : testing::Test {
  FilesTest() { ::umask(027); }
  ~FilesTest() override {
    EXPECT_EQ(027u, ::umask(022)) << "the umask was lost";
    EXPECT_EQ(descriptors, openDescriptors()) << "a descriptor was left open";
  }
  /// What was recorded since the last call.
  Records records() { return std::exchange(handler.records, {}); }
  static unsigned mode(std::string const& path) {
    struct stat info {};
    EXPECT_EQ(0, ::stat(path.c_str(), &info)) << path;
    return info.st_mode & 07777u;
  }

  int const descriptors = openDescriptors();
  std::string const nextDescriptor = std::to_string(nextDescriptors()[0]);
  TempDir folder;
  RecordingHandler handler;
};

TEST_F(FilesTest, writingReplacesTheContentForEveryone) {
  std::string const path = folder.path("written");
  for (std::string const& content :
       {std::string(300000, 'x'), std::string("a\0b\n", 4), std::string()}) {
    Util::fileWrite(handler, path, content, false);
    EXPECT_EQ(content, Util::fileRead(handler, path, true));
    EXPECT_EQ(0666u, mode(path));
    EXPECT_THAT(records(), ElementsAre("5 Util::fileRead() read '" + content + "'"));
  }
}

TEST_F(FilesTest, whatCannotBeWrittenIsRecordedAndThrown) {
  std::string const good = folder.path("good");
  char const* const closing = "closing fails";
  struct {
    char const* name;
    std::string path;
    void (*breakIt)();
    std::string record;
    bool throws;
  } const cases[] = {
      {"folder missing", folder.path("none/file"), [] {},
       "0 Util::fileWrite() unable to open " + folder.path("none/file") +
           " reason:No such file or directory",
       true},
      {"is a folder", folder.path(), [] {},
       "0 Util::fileWrite() unable to open " + folder.path() + " reason:Is a directory", true},
      {"no descriptor left", good, [] { failSystemCall(SYS_openat, EMFILE); },
       "0 Util::fileWrite() unable to open " + good + " reason:Too many open files", true},
      {"disk full", "/dev/full", [] {},
       "0 Util::fileWrite() unable to write to /dev/full reason:No space left on device", true},
      {"disk full halfway", good,
       [] {
         ::signal(SIGXFSZ, SIG_IGN);
         limitIs(RLIMIT_FSIZE, 4);
       },
       "0 Util::fileWrite() wrote:4 bytes to file:" + good + " but wanted to write:7", false},
      {closing, good, [] { failSystemCall(SYS_close, EIO); },
       "0 Util::fileWrite() unable to close fd:" + nextDescriptor + " reason:Input/output error",
       true},
  };
  for (auto const& c : cases) {
    for (bool const quiet : {false, true}) {
      SCOPED_TRACE(c.name + std::string(quiet ? ", quietly" : ""));
      inChild([&] {
        c.breakIt();
        std::string thrown;
        try {
          Util::fileWrite(handler, c.path, "content", quiet);
        } catch (RuntimeException const& fault) {
          thrown = "0 " + fault.message();
        }
        EXPECT_THAT(records(), ElementsAre(c.record));
        EXPECT_EQ(c.throws && !quiet ? c.record : "", thrown);
        EXPECT_EQ(027u, ::umask(027));
        if (c.name != closing) {
          EXPECT_EQ(descriptors, openDescriptors());
        }
      });
    }
  }
}

TEST_F(FilesTest, readingTellsEmptyFromUnreadable) {
  std::string const none = folder.path("none");
  EXPECT_EQ("", Util::fileRead(handler, none, true));
  EXPECT_THAT(records(), ElementsAre("5 Util::fileRead() unable to open file " + none));
  EXPECT_EQ("", Util::fileRead(handler, none, false));
  EXPECT_THAT(records(), IsEmpty());

  EXPECT_EQ("", Util::fileRead(handler, folder.path(), true));
  EXPECT_THAT(records(), ElementsAre("1 Util::fileRead() failed to read from " + folder.path()));

  // Claims a size of 0.
  std::string const status = Util::fileRead(handler, "/proc/self/status", true);
  EXPECT_THAT(status, testing::HasSubstr("\nPid:\t" + std::to_string(::getpid()) + "\n"));
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

  EXPECT_EQ(0u, Util::fileSize(handler, folder.path("none")));
  EXPECT_EQ(0u, Util::fileSize(handler, fd));
  EXPECT_EQ(-1, Util::truncate(handler, path, fd, 9));
  EXPECT_EQ(EBADF, errno);
  EXPECT_THAT(records(),
              ElementsAre("5 Util::fileSize() unable to stat file " + folder.path("none") +
                              ": No such file or directory",
                          "5 Util::fileSize() unable to fstat fd " + nextDescriptor +
                              ": Bad file descriptor",
                          "0 Util::truncate() ftruncate() size:9 error:Bad file descriptor"));
}

TEST_F(FilesTest, existenceAndRemoval) {
  std::string const file = folder.path("file");
  std::string const dangling = folder.path("dangling");
  Util::touch(handler, file);
  ASSERT_EQ(0, ::symlink("/nowhere/at/all", dangling.c_str()));
  struct {
    char const* name;
    std::string path;
    bool exists, removed;
    Records removal;
  } const cases[] = {
      {"file", file, true, true, {"5 Util::fileRemove() removed file " + file}},
      {"gone", file, false, true, {}},
      {"dangling link", dangling, false, true, {"5 Util::fileRemove() removed file " + dangling}},
      {"folder",
       folder.path(),
       true,
       false,
       {"0 Util::fileRemove() unlink() error " + folder.path() + ": Is a directory"}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.exists, Util::fileExists(handler, c.path));
    EXPECT_THAT(records(), ElementsAre("5 Util::fileExists() checking if " + c.path +
                                       " exists, stat result:" + (c.exists ? "0" : "-1")));
    EXPECT_EQ(c.removed, Util::fileRemove(handler, c.path));
    EXPECT_EQ(c.removal, records());
  }
}

TEST_F(FilesTest, touchMakesWhatIsMissingAndNothingElse) {
  std::string const path = folder.path("touched");
  Util::touch(handler, path);
  EXPECT_EQ(0666u, mode(path));
  Util::fileWrite(handler, path, "kept", false);
  Util::touch(handler, path);
  EXPECT_EQ(4u, Util::fileSize(handler, path));
  EXPECT_THAT(records(), IsEmpty());

  Util::touch(handler, folder.path());
  EXPECT_THAT(records(), ElementsAre("0 Util::touch() unable to open " + folder.path() +
                                     " reason:Is a directory"));
  inChild([&] {
    failSystemCall(SYS_close, EIO);
    Util::touch(handler, path);
    EXPECT_THAT(records(), ElementsAre("0 Util::touch() unable to close fd:" + nextDescriptor +
                                       " reason:Input/output error"));
  });
}

TEST_F(FilesTest, threadsThatMakeFilesNeverLoseTheUmask) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      RecordingHandler own;
      for (int i = 0; i < 100; ++i) {
        std::string const path = folder.path(std::to_string(t) + "." + std::to_string(i));
        EXPECT_EQ(0, Util::mkpath(path + "/a/b", 0777));
        Util::touch(own, path + "/touched");
        Util::fileWrite(own, path + "/a/b/written", "content", false);
        EXPECT_EQ(0777u, mode(path));
        EXPECT_EQ(0666u, mode(path + "/touched"));
        EXPECT_EQ(0666u, mode(path + "/a/b/written"));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace Veltro
