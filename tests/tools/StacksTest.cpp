#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "Veltro/Exception.h"
#include "tests/support/TempDir.h"
#include "tests/tools/Tool.h"

namespace Stacks {

// Exported, so that the text names it; not inlined, so that it has a frame.
__attribute__((visibility("default"), noinline)) std::string thrownFrom(int where) {
  try {
    if (where == 1) Veltro::RuntimeException::throwException("one");
    Veltro::RuntimeException::throwException("two");
  } catch (Veltro::Exception const& fault) {
    return fault.what();
  }
}

}  // namespace Stacks

namespace Veltro {
namespace {

using testing::HasSubstr;

// Real stacks of this program, as an agent's exceptions print them.
TEST(StacksTest, namesPlacesAndRanks) {
  TempDir const temp;
  std::string text = "12:00 agent started\n";
  // One call place each: equal stacks are those of one place, whatever called it.
  for (int where : {2, 1, 1, 1}) text += Stacks::thrownFrom(where) + "and went on\n";
  std::ofstream(temp.path("log")) << text;
  Outcome const outcome = veltro("stacks " + temp.path("log"));
  EXPECT_EQ(0, outcome.status);
  EXPECT_EQ(0u, outcome.text.find("3 times:\n")) << outcome.text;
  EXPECT_THAT(outcome.text, HasSubstr("\n1 time:\n"));
  EXPECT_THAT(outcome.text, HasSubstr("    Stacks::thrownFrom[abi:cxx11](int)\n        at "));
  EXPECT_THAT(outcome.text, HasSubstr("tests/tools/StacksTest.cpp:15\n"));
  EXPECT_THAT(outcome.text, HasSubstr("tests/tools/StacksTest.cpp:16\n"));
}

TEST(StacksTest, takesWhatItCannotName) {
  struct {
    char const* text;
    int status;
    char const* shown;
  } const cases[] = {
      {"[0x1234]", 0, "1 time:\n    0x1234\n"},
      {"stall: /no/such(f+0x1)[0x5] /no/such(_ZN1a1bEv+0x2)[0x6]", 0,
       "1 time:\n    f\n        at /no/such\n    a::b()\n        at /no/such\n"},
      {"nothing of the kind", 1, "there is no stack in the text"},
  };
  for (auto const& c : cases) {
    Outcome const outcome =
        shell("echo '" + std::string(c.text) + "' | " VELTRO_TOOL " stacks 2>&1");
    EXPECT_EQ(c.status, outcome.status);
    EXPECT_THAT(outcome.text, HasSubstr(c.shown));
  }
  EXPECT_EQ(1, veltro("stacks /no/such/file").status);
}

}  // namespace
}  // namespace Veltro
