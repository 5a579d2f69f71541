#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/Name.h"
#include "Kiv/Ptr.h"
#include "Kiv/String.h"
#include "Kiv/Trace.h"

namespace Kiv {
namespace {

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
  EXPECT_NE(Name(std::string("a\0b", 3)), Name("a"));
  EXPECT_LT(Name("a"), Name("b"));
  EXPECT_NE(Name("x").string(), String("X"));
}

TEST(StringTest, isAValueOfBytes) {
  String const nul(std::string("a\0b", 3));
  String copy = nul;
  copy += "c";
  EXPECT_EQ(3u, nul.bytes());
  EXPECT_EQ(std::string("a\0bc", 4), copy.stdString());
  EXPECT_TRUE(String(static_cast<char const*>(nullptr)).empty());
  EXPECT_LT(nul, copy);
  std::ostringstream printed;
  printed << copy;
  EXPECT_EQ(copy.stdString(), printed.str());
}

struct Counted : PtrInterface {
  explicit Counted(int* alive) : alive_(alive) { ++*alive_; }
  ~Counted() override { --*alive_; }
  int* alive_;
};
struct Derived final : Counted {
  using Counted::Counted;
};

TEST(PtrTest, lastReferenceDestroys) {
  int alive = 0;
  Ptr<Counted> first = allocate<Derived>(&alive);
  EXPECT_EQ(1u, first->references());
  Ptr<Counted> second = first;
  EXPECT_EQ(2u, first->references());
  first = first.ptr();  // to itself, through the bare pointer
  first = std::move(second);
  EXPECT_FALSE(second);
  EXPECT_EQ(1u, first->references());
  first = nullptr;
  EXPECT_EQ(0, alive);
}

TEST(PtrTest, countsOverThreads) {
  int alive = 0;
  Ptr<Counted> const shared = allocate<Counted>(&alive);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([shared] {
      for (int i = 0; i < 20000; ++i) Ptr<Counted> const copy = shared;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(1u, shared->references());
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
  rlimit const old = [] {
    rlimit now;
    ::getrlimit(RLIMIT_AS, &now);
    return now;
  }();
  rlimit const tight{std::min<rlim_t>(old.rlim_max, 512u << 20), old.rlim_max};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_AS, &tight));
  try {
    allocate<Huge>();
    ADD_FAILURE() << "a gigabyte was found";
  } catch (RangeException const& fault) {
    EXPECT_STREQ("null ValidPtr", fault.what());
  }
  ::setrlimit(RLIMIT_AS, &old);
  EXPECT_THROW(allocate<Refusing>(), ErrnoException);
}

// Thrown inside the library, caught here by each of its types.
TEST(ExceptionTest, caughtByTypeAcrossTheLibrary) {
  auto const thrown = [] { TraceSetting("/"); };
  EXPECT_THROW(thrown(), RangeException);
  EXPECT_THROW(thrown(), Exception);
  EXPECT_THROW(thrown(), std::exception);
}

TEST(ExceptionTest, errnoTexts) {
  struct {
    int number;
    char const* what;
  } const cases[] = {
      {ENOENT, "open: No such file or directory (2)"},
      {0, "open: Success (0)"},
      {99999, "open: Unknown error (99999)"},
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
