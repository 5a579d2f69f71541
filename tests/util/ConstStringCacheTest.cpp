#include "Veltro/ConstStringCache.h"

#include <gmock/gmock.h>

#include <new>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "tests/support/Asserts.h"

namespace Veltro {
namespace {

constexpr char const* kFile = "Veltro/ConstStringCache";

struct ConstStringCacheTest : testing::Test {
  ~ConstStringCacheTest() noexcept override {}  // an open reference ends the test program

  ConstStringCache cache;
};

TEST_F(ConstStringCacheTest, equalStringsShareOneEntry) {
  ConstStringRef first = cache.lookup("a name too long for the short string");
  ConstStringRef second = cache.lookup("a name too long for the short string");
  EXPECT_EQ(first, second);
  EXPECT_EQ(2u, first.elem()->refCount());
  EXPECT_EQ("a name too long for the short string", second.string());

  ConstStringRef const withNul = cache.lookup(std::string("a\0b", 3));
  EXPECT_NE(withNul, cache.lookup("a"));
  EXPECT_EQ(2u, cache.size());

  first.clear();
  EXPECT_EQ(1u, second.elem()->refCount());
  second.clear();
  EXPECT_EQ(1u, cache.size());
}

TEST_F(ConstStringCacheTest, handlesCountAndNullOnesDoNot) {
  ConstStringRef name = cache.lookup("name");
  ConstStringRef copy = name;
  copy = *&copy;
  EXPECT_EQ(2u, name.elem()->refCount());

  ConstStringRef moved = std::move(copy);
  EXPECT_EQ(2u, name.elem()->refCount());
  EXPECT_FALSE(copy);
  EXPECT_EQ("", copy.string());

  moved = ConstStringRef();
  EXPECT_EQ(1u, name.elem()->refCount());
  moved = copy;
  moved.clear();
  EXPECT_EQ(moved, ConstStringRef());
  EXPECT_NE(moved, name);

  name = cache.lookup("other");
  EXPECT_EQ(1u, cache.size());
}

// Handles come and go at random: the cache holds exactly the strings that are referred to.
TEST_F(ConstStringCacheTest, holdsWhatIsReferredTo) {
  std::mt19937 random(1);
  std::vector<ConstStringRef> handles(40);
  for (int step = 0; step < 20000; ++step) {
    ConstStringRef& handle = handles[random() % handles.size()];
    switch (random() % 3) {
      case 0:
        handle = cache.lookup("name " + std::to_string(random() % 60));
        break;
      case 1:
        handle = handles[random() % handles.size()];
        break;
      default:
        handle.clear();
    }
    std::multiset<std::string> held;
    for (ConstStringRef const& each : handles) {
      if (each) held.insert(each.string());
    }
    ASSERT_EQ(std::set<std::string>(held.begin(), held.end()).size(), cache.size());
    if (handle) {
      ASSERT_EQ(held.count(handle.string()), handle.elem()->refCount());
    }
  }
}

TEST_F(ConstStringCacheTest, countsThatCannotBeRightAreFaults) {
  ConstStringRef::Elem const stranger(&cache, "name");
  EXPECT_THAT([&] { stranger.refCountDec(); }, asserts(kFile, "refCountDec", ""));

  stranger.refCountInc();
  EXPECT_THAT([&] { stranger.refCountDec(); }, asserts(kFile, "eraseElem", ""));

  ConstStringRef const name = cache.lookup("name");
  stranger.refCountInc();
  EXPECT_THAT([&] { stranger.refCountDec(); }, asserts(kFile, "eraseElem", ""));
  EXPECT_EQ("name", name.string());
}

TEST_F(ConstStringCacheTest, isNotDestroyedWithOpenReferences) {
  // A handle whose destructor never runs: its entry goes with the cache.
  alignas(ConstStringRef) unsigned char room[sizeof(ConstStringRef)];
  auto* const doomed = new ConstStringCache;
  new (room) ConstStringRef(doomed->lookup("open"));
  EXPECT_THAT([&] { delete doomed; }, asserts(kFile, "~ConstStringCache",
                                              "Destroying ConstStringCache with open references"));
}

}  // namespace
}  // namespace Veltro
