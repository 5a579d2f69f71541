#include "Mem/Shared.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
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
  auto* const copy = static_cast<Kiv::U32 volatile*>(
      Shared(temp.path("made/on/the way"), "segment", false, kDefault, true)
          .attach(8192, Mode::privateCopy, true, ""));
  copy[2047] = 43;
  EXPECT_EQ(42u, words[2047]) << "a private copy's writes are its own";
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

TEST_F(SharedTest, whatCannotBeAttachedSaysWhy) {
  fs::create_directory(temp.path("directory"));
  ASSERT_EQ(0, ::mkfifo(temp.path("fifo").c_str(), 0666));
  std::ofstream(temp.path("short")) << "ab";
  struct {
    std::string name;
    bool writable, create;
    int reason;
  } const cases[] = {
      {"directory", false, false, EISDIR},
      {"fifo", false, false, EINVAL},
      {"missing", true, false, ENOENT},
      {"short", false, false, ENODATA},
      {"", true, true, EINVAL},
      {"a/b", true, true, EINVAL},
      {"short\0x"s, true, true, EINVAL},
  };
  for (auto const& c : cases) {
    EXPECT_EQ(nullptr, attach(c.name, 4096, c.writable, c.create)) << c.name;
    EXPECT_EQ(c.reason, errno) << c.name;
  }
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

}  // namespace
}  // namespace Mem
