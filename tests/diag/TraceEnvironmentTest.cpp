#include <gmock/gmock.h>

#include <cstdlib>
#include <memory>

#include "Veltro/Debug.h"
#include "tests/support/Child.h"
#include "tests/support/StandardError.h"

namespace Veltro {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char const* kSourceFile = "Veltro/TraceEnvironmentTest";

TEST(TraceEnvironmentTest, settingsAreAppendedAndNeverRemoved) {
  struct {
    char const* before;
    char const* setup;
    char const* clear;
    char const* after;
  } const cases[] = {
      {"X", "A/1,B", nullptr, "X,A/1,B"},
      {"", "", nullptr, ""},
      {"", nullptr, "A,B", "-A,-B"},
      {"X", nullptr, "A,B/2", "X,-A,-B/2"},
  };
  for (auto const& c : cases) {
    inChild([&] {
      ::setenv("TRACE", c.before, 1);
      Platform::setupVeltroDebug(c.setup);
      Platform::clearVeltroDebug(c.clear);
      EXPECT_STREQ(c.after, std::getenv("TRACE"));
    });
  }
}

TEST(TraceEnvironmentTest, aChangeActsOnTheNextStatementOfEveryHandlerOfTheName) {
  inChild([] {
    ::setenv("TRACE", " A/1 ,, -B/2-4", 1);
    std::unique_ptr<Platform::DebugHandler> const one(Platform::getDebugHandler("TraceEnv"));
    std::unique_ptr<Platform::DebugHandler> const two(Platform::getDebugHandler("TraceEnv"));
    EXPECT_NE(one, two);
    EXPECT_EQ(0u, *one->levelsEnabled_);
    auto const statement = [&] { VELTRO_TRACE(*two, 3, "said"); };
    Platform::setTraceFormat("%n/%l %f %F %m");
    EXPECT_THAT(standardError(statement), IsEmpty());
    Platform::setupVeltroDebug("TraceEnv/2-3");
    EXPECT_EQ(0xcu, *one->levelsEnabled_);
    EXPECT_THAT(standardError(statement),
                ElementsAre("TraceEnv/3 Veltro/TraceEnvironmentTest operator() said"));
    testing::internal::CaptureStdout();
    Platform::dumpVeltroDebugMap();
    EXPECT_EQ("A/1\n-B/2-4\nTraceEnv/2-3\n", testing::internal::GetCapturedStdout());
    Platform::clearVeltroDebug("TraceEnv");
    EXPECT_THAT(standardError(statement), IsEmpty());
    one->enabledIs(3, true);
    Platform::setTraceFormat(nullptr);
    EXPECT_THAT(standardError(statement), testing::SizeIs(1));
    Platform::clearTraceFormat();  // TRACE acts anew, with the negation at its end
    EXPECT_THAT(standardError(statement), IsEmpty());
    one->enabledIs(3, true);
    EXPECT_STREQ("", std::getenv("TRACEFORMAT"));
    EXPECT_THAT(standardError(statement),
                ElementsAre(testing::EndsWith(" TraceEnv/3 operator(): said")));
  });
}

}  // namespace
}  // namespace Veltro
