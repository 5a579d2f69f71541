#include "Mem/Shared.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "tests/support/TempDir.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace Mem {
namespace {

struct SharedTest : testing::Test {
  Veltro::TempDir temp;
  std::string const directory = temp.path("made/on/the way");

  char volatile* attach(std::string const& name, Kiv::U32 length, Mode mode = Mode::shared,
                        bool writable = true, bool create = true) {
    errno = 0;
    return static_cast<char volatile*>(
        Shared(directory, name, create, Shared::SHARED_DEFAULT_FLAGS, true)
            .attach(length, mode, writable, "test"));
  }
};

TEST_F(SharedTest, growsNeverShrinksAndIsShared) {
  struct {
    Kiv::U32 length;
    std::uintmax_t size;
  } const cases[] = {{0, 0}, {100, 100}, {10000, 10000}, {100, 10000}, {12288, 12288}};
  for (auto const& c : cases) {
    auto* const bytes = attach("file", c.length);
    ASSERT_NE(nullptr, bytes) << c.length;
    EXPECT_EQ(c.size, fs::file_size(directory + "/file"));
    if (c.length > 0) bytes[c.length - 1] = 'x';
  }
  auto* const seen = attach("file", 12288, Mode::shared, false, false);
  auto* const copy = attach("file", 12288, Mode::privateCopy, true, false);
  copy[12287] = 'y';
  EXPECT_EQ('x', seen[12287]);
}

TEST_F(SharedTest, whatCannotBeAttachedSaysWhy) {
  fs::create_directories(directory);
  std::ofstream(directory + "/short") << "ab";
  struct {
    std::string name;
    bool writable, create;
    int reason;
  } const cases[] = {
      {"missing", true, false, ENOENT}, {"short", false, false, ENODATA},  {"", true, true, EINVAL},
      {"a/b", true, true, EINVAL},      {"short\0x"s, true, true, EINVAL},
  };
  for (auto const& c : cases) {
    EXPECT_EQ(nullptr, attach(c.name, 4096, Mode::shared, c.writable, c.create)) << c.name;
    EXPECT_EQ(c.reason, errno) << c.name;
  }
}

TEST_F(SharedTest, attachesOnceAndUnmapsWhatIsNotKept) {
  void* address = nullptr;
  unsigned char resident = 0;
  {
    Shared segment(directory, "file", true, Shared::SHARED_DEFAULT_FLAGS, false);
    address = segment.attach(4096, Mode::shared, true, "");
    EXPECT_EQ(0, ::mincore(address, 4096, &resident));
    EXPECT_EQ(nullptr, segment.attach(4096, Mode::shared, true, ""));
    EXPECT_EQ(EALREADY, errno);
  }
  EXPECT_EQ(-1, ::mincore(address, 4096, &resident));
}

}  // namespace
}  // namespace Mem
