#include "Veltro/Exception.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>

namespace Veltro {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

std::size_t frames(std::string const& what) {
  std::string const pretty = what.substr(what.find("\nBacktrace:\n") + 12);
  return static_cast<std::size_t>(std::count(pretty.begin(), pretty.end(), '\n'));
}

template <typename Thrown, typename Base>
void throwsAs(char const* name) {
  SCOPED_TRACE(name);
  EXPECT_THROW(Thrown::throwException("text"), Base);
  try {
    Thrown::throwException("text");
  } catch (Exception const& e) {
    EXPECT_EQ(typeid(Thrown), typeid(e));
    EXPECT_STREQ(name, e.name());
    EXPECT_THAT(e.what(), StartsWith(std::string(name) + "(\"text\")\nBacktrace:\n"));
    EXPECT_GT(e.backtrace().count(), 2u);
  }
}

TEST(ExceptionTest, eachIsThrownAsItsOwnType) {
  throwsAs<MemoryResourceException, Exception>("Veltro::MemoryResourceException");
  throwsAs<NoPermissionException, Exception>("Veltro::NoPermissionException");
  throwsAs<UnimplementedException, Exception>("Veltro::UnimplementedException");
  throwsAs<InvalidInitializeException, Exception>("Veltro::InvalidInitializeException");
  throwsAs<RuntimeException, Exception>("Veltro::RuntimeException");
  throwsAs<OutOfRangeException, Exception>("Veltro::OutOfRangeException");
  throwsAs<CorruptionDetectedException, std::exception>("Veltro::CorruptionDetectedException");
  throwsAs<InvalidSizeException, CorruptionDetectedException>("Veltro::InvalidSizeException");
  throwsAs<AssertException, Exception>("Veltro::AssertException");
}

TEST(ExceptionTest, withoutABacktraceItSaysSo) {
  Exception const bare("index 7", false);
  EXPECT_STREQ("Veltro::Exception(\"index 7\")\nBacktrace:\nNo backtrace available\n", bare.what());
  EXPECT_EQ(bare.what(), bare.what()) << "built once, kept";
}

TEST(ExceptionTest, outOfMemoryItSaysItsMessage) {
  struct Starved final : Exception {
    Starved() : Exception("text", false) {}
    char const* name() const override { throw std::bad_alloc(); }
  };
  EXPECT_STREQ("text", Starved().what());
}

__attribute__((noinline)) unsigned deep(unsigned levels, void** addresses, unsigned maximum) {
  unsigned const count =
      levels == 0 ? Backtrace::unwind(addresses, maximum) : deep(levels - 1, addresses, maximum);
  asm volatile("" ::: "memory");  // no tail call
  return count;
}

TEST(BacktraceTest, holdsAtMostWhatIsAskedFor) {
  void* addresses[200] = {};
  void* const untouched = addresses;
  for (unsigned const maximum : {0u, 1u, 5u, 100u}) {
    addresses[maximum] = untouched;
    EXPECT_EQ(maximum, deep(150, addresses, maximum));
    EXPECT_EQ(untouched, addresses[maximum]);
  }
}

__attribute__((noinline)) std::string whatFrom(unsigned levels) {
  std::string const text = levels == 0 ? Exception("deep", true).what() : whatFrom(levels - 1);
  asm volatile("" ::: "memory");
  return text;
}

TEST(BacktraceTest, aDeepStackIsAHundredLines) {
  std::string const what = whatFrom(150);
  EXPECT_EQ(100u, frames(what));
  EXPECT_THAT(what, HasSubstr("libKivVeltro.so.0(_ZN6Veltro9BacktraceC"))
      << "the constructor that unwind was called from comes first";
  EXPECT_THAT(what, testing::ContainsRegex("\\([^)]*\\+0x[0-9a-f]+\\)\\[0x[0-9a-f]+\\]\n"));
}

}  // namespace
}  // namespace Veltro
