#include <sys/syscall.h>

#include <cstdlib>
#include <limits>
#include <set>

#include "Veltro/RandomCpp.h"
#include "tests/support/Asserts.h"
#include "tests/support/StandardError.h"
#include "tests/util/UtilTest.h"

extern "C" __attribute__((visibility("default"))) void HeapChecker_RecordClientAlloc() {}

namespace Veltro {
namespace {

using EnvironmentTest = UtilTest;

TEST_F(EnvironmentTest, howLongToWaitIsWhatTheVariableSaysAtTheFirstCall) {
  double const forever = std::numeric_limits<double>::infinity();
  char const* const refused = "Parsing the WAITFOR_DEFAULT env. variable failed";
  struct {
    char const* value;
    double seconds;
    std::vector<std::string> said;
  } const cases[] = {
      {"2.5abc", 2.5, {}}, {"abc", forever, {refused}}, {"1e999", forever, {refused}}};
  for (auto const& c : cases) {
    inChild([&c] {
      ::setenv("WAITFOR_DEFAULT", c.value, 1);
      EXPECT_EQ(c.said, standardError([] { waitForDefaultTimeout(); }));
      ::setenv("WAITFOR_DEFAULT", "7", 1);
      EXPECT_EQ(c.seconds, waitForDefaultTimeout()) << c.value;
    });
  }
}

TEST_F(EnvironmentTest, theSeedComesFromTheVariableOnce) {
  inChild([] {
    EXPECT_EQ(0u, Random::getSeed());
    Platform::setTraceFormat("%l %F %m");
    Platform::setupVeltroDebug("VeltroRandom");
    auto const said = standardError([] {
      ::setenv("QXTEST_RANDSEED", " -12x", 1);
      Random::setSeed();
      std::string const drawn = Random::randomString(16);
      ::setenv("QXTEST_RANDSEED", "99", 1);
      Random::setSeed();
      EXPECT_EQ(drawn, Random::randomString(16));
    });
    EXPECT_EQ(4294967284u, Random::getSeed());
    std::string const record = "0 setSeed Veltro::Random::setSeed(), setting seed to 4294967284";
    EXPECT_THAT(said, ElementsAre(record, record));
    // All 63 characters are drawn, NUL among them, and nothing else.
    std::string const all("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz", 63);
    std::string const drawn = Random::randomString(20000);
    EXPECT_EQ(20000u, drawn.size());
    EXPECT_EQ(std::set<char>(all.begin(), all.end()), std::set<char>(drawn.begin(), drawn.end()));
  });
}

TEST_F(EnvironmentTest, aSymbolOfTheProgramIsFoundAndAMissingOneNoted) {
  void* const address = reinterpret_cast<void*>(&HeapChecker_RecordClientAlloc);
  ::unsetenv("HEAPCHECK");
  EXPECT_EQ(nullptr, HeapChecker::resolveAllocSym(handler));
  ::setenv("HEAPCHECK", "", 1);
  EXPECT_EQ(address, HeapChecker::resolveAllocSym(handler));
  EXPECT_EQ(nullptr, HeapChecker::resolveFreeSym(handler));
  EXPECT_THAT(
      records(),
      ElementsAre(testing::StartsWith("5 Util::resolveSym() sym: HeapChecker_RecordClientAlloc "
                                      "found at 0x"),
                  testing::StartsWith("1 Util::resolveSym() symbolName: "
                                      "HeapChecker_RecordClientFree unable to resolve: ")));
}

TEST_F(EnvironmentTest, sharedMappingsAreAddedToTheCore) {
  inChild([this] {
    std::string const path = "/proc/" + std::to_string(::getpid()) + "/coredump_filter";
    Util::fileWrite(handler, path, "0x33", false);
    Util::includeShmemInCore();  // the kernel takes "59" or "0x3b", and refuses "3b"
    EXPECT_EQ("0000003b\n", Util::fileRead(handler, path, true));
    EXPECT_EQ(descriptors, openDescriptors());
    failSystemCall(SYS_read, EIO);
    EXPECT_THAT([] { Util::includeShmemInCore(); },
                asserts("Veltro/UtilCpp", "includeShmemInCore",
                        "Veltro::Util::includeShmemInCore() fscanf failed for file: " + path +
                            " error: Input/output error"));
    EXPECT_EQ(descriptors, openDescriptors());
  });
}

}  // namespace
}  // namespace Veltro
