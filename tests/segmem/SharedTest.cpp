#include "Mem/Shared.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "tests/support/Child.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace Mem {
namespace {

constexpr unsigned kDefault = Shared::SHARED_DEFAULT_FLAGS;

struct SharedTest : testing::Test {
  Veltro::TempDir temp;

  void* attach(std::string const& name, Kiv::U32 length, bool writable = true, bool create = true) {
    errno = 0;
    return Shared(temp.path(), name, create, kDefault, true)
        .attach(length, Mode{}, writable, "test");
  }
  off_t size(std::string const& name) { return static_cast<off_t>(fs::file_size(temp.path(name))); }
};

TEST_F(SharedTest, whatOneProcessWritesTheOtherReads) {
  auto* const words = static_cast<std::atomic<Kiv::U32>*>(
      Shared(temp.path("made/on/the way"), "segment", true, kDefault, true)
          .attach(8192, Mode::shared, true, ""));
  ASSERT_NE(nullptr, words);
  EXPECT_EQ(8192, size("made/on/the way/segment"));
  Veltro::inChild([&] {
    auto* const theirs = static_cast<std::atomic<Kiv::U32>*>(
        Shared(temp.path("made/on/the way"), "segment", false, kDefault, true)
            .attach(8192, Mode::shared, true, ""));
    theirs[2047] = 42;
  });
  EXPECT_EQ(42u, words[2047]);
  ::munmap(words, 8192);
}

TEST_F(SharedTest, growsAndNeverShrinks) {
  struct {
    Kiv::U32 length;
    off_t size;
  } const cases[] = {{0, 0}, {100, 100}, {10000, 10000}, {100, 10000}, {12288, 12288}};
  for (auto const& c : cases) {
    auto* const bytes = static_cast<char volatile*>(attach("file", c.length));
    ASSERT_NE(nullptr, bytes) << c.length;
    EXPECT_EQ(c.size, size("file"));
    if (c.length > 0) bytes[c.length - 1] = 'x';
  }
}

TEST_F(SharedTest, refusesWhatIsNotItsOwnFile) {
  fs::create_symlink("/etc/passwd", temp.path("link"));
  fs::create_symlink(temp.path("nowhere"), temp.path("dangling"));
  fs::create_directory(temp.path("directory"));
  ASSERT_EQ(0, ::mkfifo(temp.path("fifo").c_str(), 0666));
  std::ofstream(temp.path("victim")) << "precious";
  fs::create_hard_link(temp.path("victim"), temp.path("hard link"));
  std::ofstream(temp.path("short")) << "ab";
  struct {
    std::string name;
    bool writable, create;
    int reason;
  } const cases[] = {
      {"short\0x"s, true, true, EINVAL},
      {"link", true, true, ELOOP},
      {"dangling", true, true, ELOOP},
      {"directory", true, true, EISDIR},
      {"directory", false, false, EISDIR},
      {"fifo", true, true, EINVAL},
      {"fifo", false, false, EINVAL},
      {"hard link", true, true, EMLINK},
      {"missing", true, false, ENOENT},
      {"short", false, false, ENODATA},
      {"", true, true, EINVAL},
      {"a/b", true, true, EINVAL},
      {"short/x", true, true, EINVAL},
  };
  for (auto const& c : cases) {
    EXPECT_EQ(nullptr, attach(c.name, 4096, c.writable, c.create)) << c.name;
    EXPECT_EQ(c.reason, errno) << c.name;
  }
  EXPECT_EQ(8, size("victim"));
  EXPECT_FALSE(fs::exists(temp.path("nowhere")));
}

TEST_F(SharedTest, attachesOnceAndUnmapsUnlessKept) {
  for (bool const keep : {true, false}) {
    void* address = nullptr;
    unsigned char resident = 0;
    {
      Shared segment(temp.path(), "file", true, kDefault, keep);
      address = segment.attach(4096, Mode::shared, true, "");
      ASSERT_NE(nullptr, address);
      EXPECT_EQ(nullptr, segment.attach(4096, Mode::shared, true, ""));
      EXPECT_EQ(EALREADY, errno);
      EXPECT_EQ(0, ::mincore(address, 4096, &resident));
    }
    EXPECT_EQ(keep ? 0 : -1, ::mincore(address, 4096, &resident)) << "keep " << keep;
  }
}

TEST_F(SharedTest, aPrivateCopyKeepsItsWrites) {
  auto* const shared = static_cast<char volatile*>(attach("file", 4096));
  auto* const mine = static_cast<char volatile*>(
      Shared(temp.path(), "file", false, kDefault, true).attach(4096, Mode::privateCopy, true, ""));
  mine[0] = 'x';
  EXPECT_EQ('\0', shared[0]);
}

TEST_F(SharedTest, aFullFileSystemIsAnErrorNotASignal) {
  if (!Veltro::mayUnshare()) GTEST_SKIP() << "may not mount a file system here";
  Veltro::inChild([&] {
    ASSERT_TRUE(Veltro::enterOwnMounts());
    ASSERT_EQ(0, ::mount("none", temp.path().c_str(), "tmpfs", 0, "size=64k"));
    auto* const bytes = static_cast<char volatile*>(attach("fits", 32768));
    ASSERT_NE(nullptr, bytes);
    EXPECT_EQ(nullptr, attach("too large", 65536));
    EXPECT_EQ(ENOSPC, errno);
    // A file that looks large and has no blocks: its holes are filled before it is mapped.
    std::ofstream(temp.path("holes"));
    fs::resize_file(temp.path("holes"), 1 << 20);
    EXPECT_EQ(nullptr, attach("holes", 1 << 20));
    EXPECT_EQ(ENOSPC, errno);
    for (int i = 0; i < 32768; i += 4096) bytes[i] = 'x';
  });
}

TEST_F(SharedTest, racingAndKilledCreatorsLeaveAUsableFile) {
  for (int round = 0; round < 20; ++round) {
    std::string const name = "round" + std::to_string(round);
    pid_t creators[8];
    for (pid_t& creator : creators) {
      creator = ::fork();
      if (creator != 0) continue;
      for (;;) {
        auto* const words = static_cast<std::atomic<Kiv::U32>*>(attach(name, 65536));
        if (words == nullptr) ::_exit(1);
        ++words[16383];
        ::munmap(words, 65536);
      }
    }
    auto* const words = static_cast<std::atomic<Kiv::U32>*>(attach(name, 65536));
    ASSERT_NE(nullptr, words);
    while (words[16383] < 50) ::sched_yield();
    for (pid_t const creator : creators) ::kill(creator, SIGKILL);
    for (pid_t const creator : creators) {
      int status = 0;
      ::waitpid(creator, &status, 0);
      EXPECT_TRUE(WIFSIGNALED(status)) << "a creator was refused";
    }
    EXPECT_EQ(65536, size(name));
    EXPECT_NE(nullptr, attach(name, 131072)) << "the lock went with its holder";
    ::munmap(words, 65536);
  }
}

}  // namespace
}  // namespace Mem
