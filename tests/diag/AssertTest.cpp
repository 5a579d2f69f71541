#include <gmock/gmock.h>

#include "Veltro/Debug.h"
#include "Veltro/Exception.h"
#include "src/diag/FatalCheck.h"
#include "tests/support/RecordingHandler.h"

namespace Veltro {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Property;
using testing::Throws;

constexpr char const* kSourceFile = "Veltro/AssertTest";

TEST(AssertTest, theRecordNamesThePlace) {
  struct {
    char const* name;
    char const* file;
    char const* function;
    char const* record;
  } const cases[] = {
      {"all of it", "File", "function", "File:function:431: the text"},
      {"no file ends it at once", nullptr, "function", ""},
      {"no function ends it there", "File", nullptr, "File:"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    RecordingHandler handler;
    auto const raise = [&](Platform::DebugHandler* to, unsigned level) {
      Platform::DebugStream stream;
      stream << "the text";
      debugAndThrowAssertException(to, level, stream, c.file, c.function, 431);
    };
    auto const throwsRecord = Throws<AssertException>(Property(&Exception::message, c.record));
    EXPECT_THAT([&] { raise(&handler, 3); }, throwsRecord);
    EXPECT_THAT(handler.records, ElementsAre(std::string("3 ") + c.record));
    handler.records.clear();
    handler.enabledIs(3, false);
    EXPECT_THAT([&] { raise(&handler, 3); }, throwsRecord);
    EXPECT_THAT([&] { raise(nullptr, 3); }, throwsRecord);
    EXPECT_THAT(handler.records, IsEmpty());
  }
}

TEST(AssertTest, statementsEvaluateTheirTextOnlyWhenNeeded) {
  RecordingHandler handler;
  int evaluated = 0;
  auto const text = [&] { return ++evaluated; };
  VELTRO_ASSERT(handler, true, "not this " << text());
  handler.enabledIs(31, false);
  VELTRO_TRACE(handler, 31, "nor this " << text());
  EXPECT_EQ(0, evaluated);
  handler.enabledIs(31, true);
  VELTRO_TRACE(handler, 31, "this " << text());
  if (evaluated == 1)
    VELTRO_TRACE(handler, 0, "one statement " << text());
  else
    FAIL();
  EXPECT_THAT(handler.records, ElementsAre("31 this 1", "0 one statement 2"));
  EXPECT_THROW(VELTRO_ASSERT(handler, evaluated == 0, "x"), AssertException);
}

TEST(AssertDeathTest, fatalChecksEndTheProcessInEveryBuild) {
  int block = 0;
  VELTRO_FATAL_CHECK(++block);
  EXPECT_EQ(1, block);
  EXPECT_DEATH(VELTRO_FATAL_CHECK(!block), "Assertion `!block' failed");
}

}  // namespace
}  // namespace Veltro
