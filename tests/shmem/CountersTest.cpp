#include "Veltro/Counters.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/Child.h"
#include "tests/support/Shell.h"

namespace Veltro {
namespace {

TEST(CountersTest, anAgentCountsWithAndWithoutThePluginFile) {
  struct {
    char const* name;
    char const* folder;  // searched for plugins
    char const* arguments;
    char const* output;
  } const cases[] = {
      {"no plugin", "/nowhere", "set a b", "a own 41\nb own 42\nwithout storage none\n"},
      {"no plugin, no name", "/nowhere", "- a", "a own 41\nwithout storage none\n"},
      {"a plugin", FOREIGN_PLUGIN_FOLDER, "set namings a",
       "namings live 2\na live 1001\nwithout storage live\n"},
      {"a plugin, no name", FOREIGN_PLUGIN_FOLDER, "- namings",
       "namings live 1\nwithout storage live\n"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.output, shell(std::string("LD_LIBRARY_PATH=") + c.folder + " " COUNTERS_PROBE " " +
                              c.arguments)
                            .text);
  }
}

TEST(CountersTest, eachFacadeLooksOnceAndNamesItsSet) {
  inChild([] {
    U64 own = 0;
    Counters before("before");
    ASSERT_NE(nullptr, ::dlopen(FOREIGN_PLUGIN_FOLDER "/libPulseCountersPlugin.so", RTLD_NOW));
    Counters one("one");
    Counters two("two");
    EXPECT_EQ(&own, before.counter("namings", &own));
    EXPECT_EQ(one.counter("namings", &own), two.counter("namings", &own));
    EXPECT_EQ(2u, *one.counter("namings", &own));
  });
}

}  // namespace
}  // namespace Veltro
