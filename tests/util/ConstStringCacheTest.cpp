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

// Handles come and go at random: the cache holds exactly the strings that are referred to, once
// each.
TEST_F(ConstStringCacheTest, holdsWhatIsReferredTo) {
  std::mt19937 random(1);
  std::vector<ConstStringRef> handles(40);
  for (int step = 0; step < 20000; ++step) {
    ConstStringRef& handle = handles[random() % handles.size()];
    ConstStringRef& other = handles[random() % handles.size()];
    switch (random() % 5) {
      case 0:
        handle = cache.lookup(std::string("a\0b", random() % 4) + std::to_string(random() % 20));
        break;
      case 1:
        handle = ConstStringRef(other);
        break;
      case 2: {
        ConstStringRef const moved = std::move(other);
        EXPECT_TRUE(!other && other.string().empty());
        handle = moved;
        break;
      }
      case 3:
        handle = other;
        break;
      default:
        handle.clear();
    }
    std::multiset<std::string> held;
    for (ConstStringRef const& each : handles) {
      if (each) held.insert(each.string());
    }
    ASSERT_EQ(std::set<std::string>(held.begin(), held.end()).size(), cache.size());
    ASSERT_EQ(handle == other, handle.string() == other.string());
    if (handle) {
      ASSERT_EQ(held.count(handle.string()), handle.elem()->refCount());
    }
  }
}

TEST_F(ConstStringCacheTest, countsThatCannotBeRightAreFaults) {
  ConstStringRef::Elem const stranger(&cache, "name");
  EXPECT_THAT([&] { stranger.refCountDec(); }, asserts(kFile, "refCountDec", ""));
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
