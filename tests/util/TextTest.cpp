// Numbers of bytes and texts of values.
#include <gtest/gtest.h>

#include <limits>
#include <sstream>

#include "Veltro/DisplayPointer.h"
#include "Veltro/UtilCpp.h"
#include "tests/support/AwkwardStream.h"

namespace Veltro {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using Time = std::chrono::steady_clock::time_point;

TEST(HashTest, bytesFrom0x80OnAreSignExtended) {
  struct {
    std::string text;
    U32 hash;
    U64 hash64;
  } const cases[] = {
      {"foobar", 0xbf9cf968u, 0x85944171f73967e8u},  // as in the textbook
      {"\x7f\x80", 0xaca4d6cau, 0xf719b5f84a7c24eau},
      {std::string("a\0b", 3), 0x10f3abd2u, 0xe5d29919042666b2u},
  };
  for (auto const& c : cases) {
    EXPECT_EQ(c.hash, Util::hash(c.text)) << c.text;
    EXPECT_EQ(c.hash64, Util::hash64(c.text)) << c.text;
  }
}

TEST(DumpHexTest, groupsOfFour) {
  unsigned char const bytes[] = {0x00, 0x01, 0x7f, 0x80, 0xff, 0x10, 0x20, 0x30, 0x40};
  EXPECT_EQ("", dumpHex(bytes, -1));
  EXPECT_EQ("00017f80", dumpHex(bytes, 4));
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
  struct {
    std::string shown;
    char const* text;
  } const cases[] = {
      {shown(pointer(0)), "NULL"},
      {pointer(0xabcdef98u).toString(), "0xabcdef98"},
      {shown(pointer(std::numeric_limits<std::uintptr_t>::max())),
       sizeof(void*) == 8 ? "0xffffffffffffffff" : "0xffffffff"},
      {shown(-1h), "-3600000000000ns"},
      {shown(999ns), "999ns"},
      {shown(1000ns), "1\xc2\xb5s"},
      {shown(999999ns), "999\xc2\xb5s"},
      {shown(1000000ns), "1ms"},
      {shown(nanoseconds(59999999999)), "59999ms"},
      {shown(nanoseconds(60000000000)), "60s"},
      {shown(nanoseconds(3599999999999)), "3599s"},
      {shown(nanoseconds(3659999999999)), "60min"},
      {shown(nanoseconds(3600000000000)), "60min"},
      {shown(DisplayTaskTimeStamp(now, now - 1ns)), "1ns ago"},
      {shown(DisplayTaskTimeStamp(now, now)), "in 0ns"},
      {shown(DisplayTaskTimeStamp(now, Time::max())), "in 153722807min"},
  };
  for (auto const& c : cases) EXPECT_EQ(c.text, c.shown);
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

}  // namespace
}  // namespace Veltro
