#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

#include "Veltro/RandomCpp.h"
#include "tests/support/Asserts.h"
#include "tests/support/StandardError.h"
#include "tests/util/UtilTest.h"

extern "C" __attribute__((visibility("default"))) void HeapChecker_RecordClientAlloc() {}

namespace Veltro {
namespace {

using testing::ElementsAre;
using EnvironmentTest = UtilTest;

TEST_F(EnvironmentTest, howLongToWaitIsWhatTheVariableSaysAtTheFirstCall) {
  double const forever = std::numeric_limits<double>::infinity();
  struct {
    char const* value;  // null: none
    double seconds;
    bool refused;
  } const cases[] = {
      {nullptr, forever, false}, {"2.5abc", 2.5, false},   {"-1", -1, false},
      {"abc", forever, true},    {"1e999", forever, true},
  };
  for (auto const& c : cases) {
    inChild([&c] {
      ::unsetenv("WAITFOR_DEFAULT");
      if (c.value != nullptr) ::setenv("WAITFOR_DEFAULT", c.value, 1);
      auto const said = standardError([&c] {
        EXPECT_EQ(c.seconds, waitForDefaultTimeout()) << c.value;
        ::setenv("WAITFOR_DEFAULT", "7", 1);
        EXPECT_EQ(c.seconds, waitForDefaultTimeout()) << c.value;
      });
      std::vector<std::string> const message{"Parsing the WAITFOR_DEFAULT env. variable failed"};
      EXPECT_EQ(c.refused ? message : decltype(message)(), said) << c.value;
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
  });
}

TEST_F(EnvironmentTest, withoutTheVariableEveryProcessHasItsOwnSeed) {
  inChild([] {
    ::unsetenv("QXTEST_RANDSEED");
    Random::setSeed();
    EXPECT_LT(Random::getSeed(), 1000000000u);
    EXPECT_NE(Random::getSeed(), 0u);
    // All 63 characters are drawn, NUL among them, and nothing else.
    std::string drawn = Random::randomString(20000);
    EXPECT_EQ(20000u, drawn.size());
    std::sort(drawn.begin(), drawn.end());
    drawn.erase(std::unique(drawn.begin(), drawn.end()), drawn.end());
    EXPECT_EQ(
        std::string(1, '\0') + "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz",
        drawn);
  });
}

TEST_F(EnvironmentTest, aSymbolOfTheProgramIsFoundAndAMissingOneNoted) {
  void* const address = reinterpret_cast<void*>(&HeapChecker_RecordClientAlloc);
  std::ostringstream text;
  text << address;
  ::unsetenv("HEAPCHECK");
  EXPECT_EQ(nullptr, HeapChecker::resolveAllocSym(handler));
  ::setenv("HEAPCHECK", "", 1);
  EXPECT_EQ(address, HeapChecker::resolveAllocSym(handler));
  EXPECT_EQ(nullptr, HeapChecker::resolveFreeSym(handler));
  EXPECT_THAT(
      records(),
      ElementsAre("5 Util::resolveSym() sym: HeapChecker_RecordClientAlloc found at " + text.str(),
                  testing::StartsWith("1 Util::resolveSym() symbolName: "
                                      "HeapChecker_RecordClientFree unable to resolve: ")));
}

TEST_F(EnvironmentTest, sharedMappingsAreAddedToTheCore) {
  if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to mount over /proc";
  inChild([this] {
    std::string const path = "/proc/" + std::to_string(::getpid()) + "/coredump_filter";
    auto const added = [&path](char const* before) {
      std::ofstream(path) << before;
      Util::includeShmemInCore();
      std::ostringstream after;
      after << std::ifstream(path).rdbuf();
      return after.str();
    };
    EXPECT_EQ("0000003b\n", added("0x33"));  // by the kernel, and by a file of our own
    ASSERT_TRUE(enterOwnMounts());
    ASSERT_EQ(0, ::mount("none", "/proc", "tmpfs", 0, nullptr));
    EXPECT_EQ("", added("33")) << "no filter file: nothing happens";
    Util::mkpath(path.substr(0, path.rfind('/')), 0755);
    EXPECT_EQ("59", added("33")) << "read as hexadecimal, written as decimal";
    EXPECT_THAT([&] { added("none"); },
                asserts("Veltro/UtilCpp", "includeShmemInCore",
                        "Veltro::Util::includeShmemInCore() fscanf failed for file: " + path +
                            " error: Success"));
    EXPECT_EQ(descriptors, openDescriptors());
  });
}

}  // namespace
}  // namespace Veltro
