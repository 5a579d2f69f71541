#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/Name.h"
#include "Kiv/Ptr.h"

namespace Kiv {
namespace {
using namespace std::string_literals;

TEST(NameTest, equalTextsAreOneNameOverThreads) {
  std::vector<std::vector<Name>> names(4);
  std::vector<std::thread> threads;
  for (auto& own : names) {
    threads.emplace_back([&own] {
      for (int i = 0; i < 2000; ++i) own.emplace_back("name" + std::to_string(i % 500));
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (auto const& own : names) EXPECT_EQ(names[0], own);
  EXPECT_EQ("name499", names[0].back().stdString());
  EXPECT_EQ(Name(), Name(static_cast<char const*>(nullptr)));
  EXPECT_NE(Name("a\0b"s), Name("a"));
  EXPECT_EQ("a\0b"s, testing::PrintToString(String("a\0b"s)));
}

struct Counted final : PtrInterface {
  explicit Counted(int* alive) : alive_(alive) { ++*alive_; }
  ~Counted() override { --*alive_; }
  int* alive_;
};

TEST(PtrTest, lastReferenceOfAnyThreadDestroys) {
  int alive = 0;
  Ptr<Counted> first = allocate<Counted>(&alive);
  Ptr<Counted> second = first;
  first = first.ptr();  // to itself, through the bare pointer
  first = std::move(second);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([first] {
      for (int i = 0; i < 20000; ++i) Ptr<Counted> const copy = first;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(1u, first->references());
  first = nullptr;
  EXPECT_EQ(0, alive);
}

TEST(PtrTest, allocationsThatFailThrow) {
  struct Huge final : PtrInterface {
    static void* operator new(std::size_t, std::nothrow_t const&) noexcept { return nullptr; }
    static void operator delete(void*) {}
  };
  EXPECT_THAT([] { allocate<Huge>(); }, testing::ThrowsMessage<RangeException>("null ValidPtr"));
}

TEST(ExceptionTest, errnoTexts) {
  EXPECT_STREQ("open: No such file or directory (2)", ErrnoException("open", ENOENT).what());
  EXPECT_STREQ("open: Unknown error (-1)", ErrnoException("open", -1).what());
}

}  // namespace
}  // namespace Kiv
