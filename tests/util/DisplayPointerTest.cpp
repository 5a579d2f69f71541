#include "Veltro/DisplayPointer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <sstream>

#include "tests/support/AwkwardStream.h"

namespace Veltro {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

template <class T>
std::string shown(T const& value) {
  std::ostringstream os;
  os << value;
  return os.str();
}

DisplayPointer pointer(std::uintptr_t address) {
  return DisplayPointer(reinterpret_cast<void const*>(address));
}

TEST(DisplayPointerTest, addressesAreZeroFilledHexadecimal) {
  EXPECT_EQ("NULL", shown(pointer(0)));
  EXPECT_EQ("0x00001234", shown(pointer(0x1234)));
  EXPECT_EQ("0xabcdef98", pointer(0xabcdef98u).toString());
  if constexpr (sizeof(void*) == 8) {
    EXPECT_EQ("0x7fffabcdef98", shown(pointer(static_cast<std::uintptr_t>(0x7fffabcdef98ull))));
  }
}

TEST(DisplayDurationTest, unitFollowsSize) {
  struct {
    std::int64_t count;
    char const* text;
  } const cases[] = {
      {0, "0ns"},
      {-5, "-5ns"},
      {-3600000000000, "-3600000000000ns"},
      {999, "999ns"},
      {1000, "1\xc2\xb5s"},
      {1999, "1\xc2\xb5s"},
      {999999, "999\xc2\xb5s"},
      {1000000, "1ms"},
      {59999999999, "59999ms"},
      {60000000000, "60s"},
      {3599999999999, "3599s"},
      {3600000000000, "60min"},
      {3659999999999, "60min"},
      {std::numeric_limits<std::int64_t>::max(), "153722867min"},
      {std::numeric_limits<std::int64_t>::min(), "-9223372036854775808ns"},
  };
  for (auto const& c : cases) EXPECT_EQ(c.text, shown(nanoseconds(c.count)));
}

TEST(DisplayTaskTimeStampTest, isSeenFromTheReference) {
  std::chrono::steady_clock::time_point const now(1h);
  EXPECT_EQ("2000ms ago", shown(DisplayTaskTimeStamp(now, now - 2s)));
  EXPECT_EQ("1ns ago", shown(DisplayTaskTimeStamp(now, now - 1ns)));
  EXPECT_EQ("in 0ns", shown(DisplayTaskTimeStamp(now, now)));
  EXPECT_EQ("in 5ms", shown(DisplayTaskTimeStamp(now, now + 5ms)));
  EXPECT_EQ("in 153722807min",
            shown(DisplayTaskTimeStamp(now, std::chrono::steady_clock::time_point::max())));
}

TEST(DisplayTest, neitherFollowsNorChangesTheStream) {
  {
    AwkwardStream os;
    os << pointer(0xabc1234) << pointer(0);
    EXPECT_EQ("0x0abc1234NULL", os.str());
    os.expectStateKept(AwkwardStream::kWidth);
  }
  std::chrono::steady_clock::time_point const now(1h);
  {
    AwkwardStream os;
    os.width(8);
    os << nanoseconds(1234567890) << DisplayTaskTimeStamp(now, now - 1234567us);
    EXPECT_EQ("**1234ms1234ms ago", os.str());
    os.expectStateKept(0);
  }
}

}  // namespace
}  // namespace Veltro
