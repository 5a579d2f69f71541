#include "Veltro/Exception.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>

namespace Veltro {
namespace {

template <typename Thrown, typename Base = Exception>
void throwsAs(char const* name) {
  SCOPED_TRACE(name);
  EXPECT_THROW(Thrown::throwException("text"), Base);
  try {
    Thrown::throwException("text");
  } catch (Exception const& e) {
    EXPECT_EQ(typeid(Thrown), typeid(e));
    EXPECT_STREQ(name, e.name());
    EXPECT_THAT(e.what(), testing::StartsWith(std::string(name) + "(\"text\")\nBacktrace:\n"));
    EXPECT_GT(e.backtrace().count(), 2u);
  }
}

TEST(ExceptionTest, eachIsThrownAsItsOwnType) {
  throwsAs<MemoryResourceException>("Veltro::MemoryResourceException");
  throwsAs<NoPermissionException>("Veltro::NoPermissionException");
  throwsAs<UnimplementedException>("Veltro::UnimplementedException");
  throwsAs<InvalidInitializeException>("Veltro::InvalidInitializeException");
  throwsAs<RuntimeException>("Veltro::RuntimeException");
  throwsAs<OutOfRangeException>("Veltro::OutOfRangeException");
  throwsAs<CorruptionDetectedException>("Veltro::CorruptionDetectedException");
  throwsAs<InvalidSizeException, CorruptionDetectedException>("Veltro::InvalidSizeException");
  throwsAs<AssertException>("Veltro::AssertException");
}

TEST(ExceptionTest, whatIsBuiltOnceAndAlwaysSaysSomething) {
  Exception const bare("index 7", false);
  EXPECT_STREQ("Veltro::Exception(\"index 7\")\nBacktrace:\nNo backtrace available\n", bare.what());
  EXPECT_EQ(bare.what(), bare.what());
  struct Starved final : Exception {
    Starved() : Exception("text", false) {}
    char const* name() const override { throw std::bad_alloc(); }
  };
  EXPECT_STREQ("text", Starved().what());
}

template <typename Body>
__attribute__((noinline)) void deep(unsigned levels, Body const& body) {
  levels == 0 ? body() : deep(levels - 1, body);
  asm volatile("" ::: "memory");  // no tail call
}

TEST(BacktraceTest, holdsAtMostWhatIsAskedFor) {
  deep(150, [] {
    void* addresses[101] = {};
    for (unsigned const maximum : {0u, 1u, 100u}) {
      EXPECT_EQ(maximum, Backtrace::unwind(addresses, maximum));
      EXPECT_EQ(nullptr, addresses[maximum]);
    }
    std::string const text = Backtrace(true).pretty();
    EXPECT_EQ(100, std::count(text.begin(), text.end(), '\n'));
    EXPECT_THAT(text, testing::HasSubstr("libKivVeltro.so.0(_ZN6Veltro9BacktraceC"))
        << "the constructor that unwind was called from comes first";
    EXPECT_THAT(text, testing::ContainsRegex("\\([^)]*\\+0x[0-9a-f]+\\)\\[0x[0-9a-f]+\\]\n"));
  });
}

}  // namespace
}  // namespace Veltro
