// Numbers of bytes, texts of values, and the cache of texts.
#include <gmock/gmock.h>

#include <limits>
#include <new>
#include <random>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "Veltro/ConstStringCache.h"
#include "Veltro/DisplayPointer.h"
#include "Veltro/UtilCpp.h"
#include "tests/support/Asserts.h"
#include "tests/support/AwkwardStream.h"

namespace Veltro {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using Time = std::chrono::steady_clock::time_point;

TEST(HashTest, bytesFrom0x80OnAreSignExtended) {
  EXPECT_EQ(0xbf9cf968u, Util::hash("foobar")) << "as in the textbook";
  EXPECT_EQ(0x85944171f73967e8u, Util::hash64("foobar"));
  EXPECT_EQ(0xaca4d6cau, Util::hash("\x7f\x80"));
  EXPECT_EQ(0xf719b5f84a7c24eau, Util::hash64("\x7f\x80"));
}

TEST(DumpHexTest, groupsOfFour) {
  unsigned char const bytes[] = {0x00, 0x01, 0x7f, 0x80, 0xff, 0x10, 0x20, 0x30, 0x40};
  EXPECT_EQ("", dumpHex(bytes, -1));
  EXPECT_EQ("00017f80 ff102030 40", dumpHex(bytes, 9));
}

DisplayPointer pointer(std::uintptr_t address) {
  return DisplayPointer(reinterpret_cast<void const*>(address));
}

TEST(DisplayTest, valuesAsPeopleReadThem) {
  Time const now(1h);
  auto const shown = [](auto const& value) {
    std::ostringstream os;
    os << value;
    return os.str();
  };
  std::pair<std::string, char const*> const cases[] = {
      {shown(pointer(0)), "NULL"},
      {pointer(0xabcdef98u).toString(), "0xabcdef98"},
      {shown(pointer(std::numeric_limits<std::uintptr_t>::max())),
       sizeof(void*) == 8 ? "0xffffffffffffffff" : "0xffffffff"},
      {shown(-1h), "-3600000000000ns"},
      {shown(999ns), "999ns"},
      {shown(1000ns), "1\xc2\xb5s"},
      {shown(1000000ns), "1ms"},
      {shown(nanoseconds(59999999999)), "59999ms"},
      {shown(nanoseconds(60000000000)), "60s"},
      {shown(nanoseconds(3599999999999)), "3599s"},
      {shown(nanoseconds(3600000000000)), "60min"},
      {shown(DisplayTaskTimeStamp(now, now - 1ns)), "1ns ago"},
      {shown(DisplayTaskTimeStamp(now, now)), "in 0ns"},
      {shown(DisplayTaskTimeStamp(now, Time::max())), "in 153722807min"},
  };
  for (auto const& [is, text] : cases) EXPECT_EQ(text, is);
}

TEST(DisplayTest, neitherFollowsNorChangesTheStream) {
  AwkwardStream os;
  os << pointer(0xabc1234) << pointer(0);
  os.expectStateKept(AwkwardStream::kWidth);
  os.width(8);
  os << nanoseconds(1234567890) << DisplayTaskTimeStamp(Time(1h), Time(1h) - 1234567us);
  EXPECT_EQ("0x0abc1234NULL**1234ms1234ms ago", os.str());
  os.expectStateKept(0);
}

// Handles come and go at random: the cache holds exactly the strings that are referred to, once
// each.
TEST(ConstStringCacheTest, holdsWhatIsReferredTo) {
  ConstStringCache cache;
  std::mt19937 random(1);
  std::vector<ConstStringRef> handles(40);
  for (int step = 0; step < 20000; ++step) {
    std::string const text = std::string("a\0b", random() % 4) + std::to_string(random() % 20);
    ConstStringRef& handle = handles[random() % handles.size()];
    ConstStringRef& other = handles[random() % handles.size()];
    auto const act = random() % 5;
    if (act == 0) handle = cache.lookup(text);
    if (act == 1) handle = ConstStringRef(other);
    if (act == 2) handle = ConstStringRef(std::move(other));
    if (act == 3) handle = other;
    if (act == 4) handle.clear();
    std::multiset<std::string> held;
    for (ConstStringRef const& each : handles) {
      if (each) held.insert(each.string());
    }
    ASSERT_EQ(std::set<std::string>(held.begin(), held.end()).size(), cache.size());
    ASSERT_EQ(handle == other, handle.string() == other.string());
    ASSERT_EQ(held.count(handle.string()), handle ? handle.elem()->refCount() : 0);
  }
}

TEST(ConstStringCacheTest, countsThatCannotBeRightAreFaults) {
  auto* const cache = new ConstStringCache;
  ConstStringRef::Elem const stranger(cache, "name");
  EXPECT_THAT([&] { stranger.refCountDec(); },
              asserts("Veltro/ConstStringCache", "refCountDec", ""));
  // A handle whose destructor never runs: its entry goes with the cache.
  alignas(ConstStringRef) unsigned char room[sizeof(ConstStringRef)];
  new (room) ConstStringRef(cache->lookup("name"));
  stranger.refCountInc();
  EXPECT_THAT([&] { stranger.refCountDec(); }, asserts("Veltro/ConstStringCache", "eraseElem", ""));
  EXPECT_THAT([&] { delete cache; }, asserts("Veltro/ConstStringCache", "~ConstStringCache",
                                             "Destroying ConstStringCache with open references"));
}

}  // namespace
}  // namespace Veltro
