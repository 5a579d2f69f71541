#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/Name.h"
#include "Kiv/Ptr.h"
#include "tests/support/Child.h"

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
  std::set<std::string const*> texts;
  for (auto const& own : names) {
    EXPECT_EQ(names[0], own);
    for (Name const name : own) texts.insert(&name.stdString());
  }
  EXPECT_EQ(500u, texts.size());
  EXPECT_EQ(Name(), Name(static_cast<char const*>(nullptr)));
  EXPECT_EQ(Name(""), Name(std::string()));
  EXPECT_NE(Name("a\0b"s), Name("a"));
  EXPECT_LT(Name("a"), Name("b"));
}

TEST(StringTest, isAValueOfBytes) {
  String copy = "a\0b"s;
  EXPECT_EQ(3u, copy.bytes());
  copy += "c";
  EXPECT_LT(String("a\0b"s), copy);
  EXPECT_TRUE(String(static_cast<char const*>(nullptr)).empty());
  std::ostringstream printed;
  printed << copy;
  EXPECT_EQ("a\0bc"s, printed.str());
}

struct Counted : PtrInterface {
  explicit Counted(int* alive) : alive_(alive) { ++*alive_; }
  ~Counted() override { --*alive_; }
  int* alive_;
};
struct Derived final : Counted {
  using Counted::Counted;
};

TEST(PtrTest, lastReferenceOfAnyThreadDestroys) {
  int alive = 0;
  Ptr<Counted> first = allocate<Derived>(&alive);
  Ptr<Counted> second = first;
  EXPECT_EQ(2u, first->references());
  first = first.ptr();  // to itself, through the bare pointer
  first = std::move(second);
  EXPECT_FALSE(second);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([first] {
      for (int i = 0; i < 20000; ++i) Ptr<Counted> const copy = first;
    });
  }
  for (std::thread& thread : threads) thread.join();
  threads.clear();
  EXPECT_EQ(1u, first->references());
  first = nullptr;
  EXPECT_EQ(0, alive);
}

struct Huge : PtrInterface {
  char bytes[1u << 30];
};
struct Refusing : PtrInterface {
  Refusing() { throw ErrnoException("refused", EPERM); }
};

TEST(PtrTest, allocationFailures) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers' own mappings need the address space";
#endif
  Veltro::inChild([] {
    Veltro::limitIs(RLIMIT_AS, 512u << 20);
    try {
      allocate<Huge>();
      ADD_FAILURE() << "a gigabyte was found";
    } catch (RangeException const& fault) {
      EXPECT_STREQ("null ValidPtr", fault.what());
    }
    EXPECT_THROW(allocate<Refusing>(), ErrnoException);
  });
}

TEST(ExceptionTest, errnoTexts) {
  struct {
    int number;
    char const* what;
  } const cases[] = {
      {ENOENT, "open: No such file or directory (2)"},
      {0, "open: Success (0)"},
      {-1, "open: Unknown error (-1)"},
  };
  for (auto const& c : cases) {
    ErrnoException const fault("open", c.number);
    EXPECT_STREQ(c.what, fault.what());
    EXPECT_EQ(c.number, fault.errnum());
  }
}

}  // namespace
}  // namespace Kiv
