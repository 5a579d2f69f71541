#include <gmock/gmock.h>

#include <cstdlib>
#include <memory>

#include "Veltro/Debug.h"
#include "Veltro/Exception.h"
#include "src/diag/FatalCheck.h"
#include "tests/support/Child.h"
#include "tests/support/RecordingHandler.h"
#include "tests/support/StandardError.h"

namespace Veltro {
namespace {

using testing::ElementsAre;

constexpr char const* kSourceFile = "Veltro/DebugTest";

TEST(AssertTest, theRecordNamesThePlace) {
  char const* const cases[][3] = {
      {"File", "function", "File:function:431: the text"},
      {nullptr, "function", ""},  // no file ends it at once
      {"File", nullptr, "File:"},
  };
  for (auto const& [file, function, record] : cases) {
    RecordingHandler handler;
    handler.enabledIs(4, false);
    auto const raised = [&, file = file, function = function](auto&& to, unsigned level) {
      Platform::DebugStream stream;
      stream << "the text";
      try {
        debugAndThrowAssertException(to, level, stream, file, function, 431);
      } catch (AssertException const& fault) {
        return fault.message();
      }
    };
    EXPECT_EQ(record, raised(handler, 3));
    EXPECT_EQ(record, raised(&handler, 4)) << "off";
    EXPECT_EQ(record, raised(nullptr, 3));
    EXPECT_THAT(handler.records, ElementsAre(std::string("3 ") + record));
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

// Ownership shows in the sanitizer's report: a handler freed twice, never, or used after.
template <typename Holder>
void borrowersShareAndOwnersHaveTheirOwn() {
  RecordingHandler handler;
  Holder const borrower(handler);
  auto owner = std::make_unique<Holder>(std::string("HolderTest"));
  EXPECT_EQ(&handler, &Holder(borrower).debugHandler());

  Holder copy(*owner);
  EXPECT_NE(&owner->debugHandler(), &copy.debugHandler());
  owner.reset();
  EXPECT_EQ("HolderTest", copy.debugHandler().name());

  Holder target(std::string("Target"));
  target = borrower;
  EXPECT_EQ(&handler, &target.debugHandler());
  target = copy;
  EXPECT_NE(&copy.debugHandler(), &target.debugHandler());
  target = *&target;
  Holder const ofItsOwn(target.debugHandler());
  target = ofItsOwn;
  EXPECT_EQ(&ofItsOwn.debugHandler(), &target.debugHandler());
  EXPECT_EQ("HolderTest", target.debugHandler().name());

  Holder second(target.debugHandler());
  second = target;
  EXPECT_NE(&second.debugHandler(), &target.debugHandler()) << "the copy of an owner outlives it";
}
TEST(DebuggableTest, debuggable) { borrowersShareAndOwnersHaveTheirOwn<Debuggable>(); }
TEST(DebuggableTest, debugSupport) { borrowersShareAndOwnersHaveTheirOwn<DebugSupport>(); }

TEST(TraceEnvironmentTest, settingsAreAppendedAndNeverRemoved) {
  // TRACE before, what is set up, what is cleared, TRACE after
  char const* const cases[][4] = {
      {"X", "A/1,B", nullptr, "X,A/1,B"},
      {"", "", nullptr, ""},
      {"X", nullptr, "A,B/2", "X,-A,-B/2"},
  };
  for (auto const& c : cases) {
    inChild([&] {
      ::setenv("TRACE", c[0], 1);
      Platform::setupVeltroDebug(c[1]);
      Platform::clearVeltroDebug(c[2]);
      EXPECT_STREQ(c[3], std::getenv("TRACE"));
    });
  }
}

TEST(TraceEnvironmentTest, aChangeActsOnTheNextStatementOfEveryHandlerOfTheName) {
  inChild([] {
    ::setenv("TRACE", " A/1 ,, -B/2-4", 1);
    std::unique_ptr<Platform::DebugHandler> const one(Platform::getDebugHandler("TraceEnv"));
    std::unique_ptr<Platform::DebugHandler> const two(Platform::getDebugHandler("TraceEnv"));
    EXPECT_EQ(0u, *one->levelsEnabled_);
    auto const statement = [&] { VELTRO_TRACE(*two, 3, "said"); };
    Platform::setTraceFormat("%n/%l %f %F %m");
    Platform::setupVeltroDebug("TraceEnv/2-3");
    EXPECT_EQ(0xcu, *one->levelsEnabled_);
    EXPECT_THAT(standardError(statement),
                ElementsAre("TraceEnv/3 Veltro/DebugTest operator() said"));
    testing::internal::CaptureStdout();
    Platform::dumpVeltroDebugMap();
    EXPECT_EQ("A/1\n-B/2-4\nTraceEnv/2-3\n", testing::internal::GetCapturedStdout());
    Platform::clearVeltroDebug("TraceEnv");
    Platform::setTraceFormat(nullptr);
    EXPECT_THAT(standardError(statement), testing::IsEmpty());
    Platform::clearTraceFormat();
    EXPECT_STREQ("", std::getenv("TRACEFORMAT"));
    one->enabledIs(3, true);
    EXPECT_THAT(standardError(statement),
                ElementsAre(testing::EndsWith(" TraceEnv/3 operator(): said")));
    Platform::clearTraceFormat();  // TRACE acts anew, with the negation at its end
    EXPECT_THAT(standardError(statement), testing::IsEmpty());
  });
}

}  // namespace
}  // namespace Veltro
