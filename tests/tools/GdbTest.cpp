#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TempDir.h"
#include "tests/tools/Tool.h"

namespace Veltro {
namespace {

using testing::ContainsRegex;

// What the script says between the two marks, of the same moment: of the process as its task
// aborts it, and of the core made of it then.
TEST(GdbTest, looksIntoAProcessAndIntoACore) {
  TempDir const temp;
  std::string const core = temp.path("core");
  std::string const look = " -ex 'source " VELTRO_GDB
                           "' -ex 'echo BEGIN\\n' -ex 'veltro schedulers' -ex 'veltro tasks'"
                           " -ex 'veltro queues' -ex 'veltro history 6' -ex 'echo END\\n'";
  std::string const gdb = "gdb --batch -nx -iex 'set debuginfod enabled off' ";
  auto const said = [](std::string const& command) {
    std::string const text = shell(command + " 2>&1").text;
    std::size_t const begin = text.find("BEGIN\n"), end = text.find("END\n");
    return end == std::string::npos ? text : text.substr(begin, end - begin);
  };
  std::string const live = said(gdb + "-ex 'run aborting </dev/null' " + look +
                                " -ex 'generate-core-file " + core + "' -ex kill " VELTRO_AGENT);
  EXPECT_EQ(live, said(gdb + VELTRO_AGENT " " + core + look));
  for (char const* text : {
           "root   thread:[0-9]+ .thread agent.: runs stuck, 5 tasks",
           "group  inner .thread agent.: runs -, 1 tasks",
           "thread:[0-9]+: stuck absolute running, 1 runs, ",
           "inner: member low queued, 0 runs",
           "thread:[0-9]+ high: ticker",
           "thread:[0-9]+ low: poller TaskGroup;inner",
           "inner low: member",
           "of [0-9]+ events:\n  [0-9]+ run start stuck\n",
       }) {
    EXPECT_THAT(live, ContainsRegex(text));
  }
}

}  // namespace
}  // namespace Veltro
