#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/Tool.h"

namespace Veltro {
namespace {

using testing::HasSubstr;

TEST(StacksTest, ranksAndTakesWhatItCannotName) {
  struct {
    char const* text;
    int status;
    char const* shown;
  } const cases[] = {
      {"[0x12]\n\n[0x1234]\n[0x12]\nand went on\n[0x1234]\n[0x12]", 0,
       "2 times:\n    0x1234\n    0x12\n1 time:\n    0x12\n"},
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
