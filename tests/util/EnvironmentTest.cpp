#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

#include "Veltro/RandomCpp.h"
#include "Veltro/UtilCpp.h"
#include "tests/support/Asserts.h"
#include "tests/support/Child.h"
#include "tests/support/RecordingHandler.h"

extern "C" __attribute__((visibility("default"))) void HeapChecker_RecordClientAlloc() {}

namespace Veltro {
namespace {

using testing::ElementsAre;

void variableIs(char const* name, char const* value) {
  if (value == nullptr) {
    ::unsetenv(name);
  } else {
    ::setenv(name, value, 1);
  }
}

TEST(WaitForTest, whatTheVariableSaysAtTheFirstCall) {
  double const forever = std::numeric_limits<double>::infinity();
  std::string const message = "Parsing the WAITFOR_DEFAULT env. variable failed\n";
  struct {
    char const* value;
    double seconds;
    std::string message;
  } const cases[] = {
      {nullptr, forever, ""},
      {"2.5", 2.5, ""},
      {"2.5abc", 2.5, ""},
      {"0x10", 16, ""},
      {"-1", -1, ""},
      {"", forever, message},
      {"abc", forever, message},
      {"1e999", forever, message},
      {"1e-320", forever, message},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.value == nullptr ? "unset" : c.value);
    inChild([&c] {
      variableIs("WAITFOR_DEFAULT", c.value);
      testing::internal::CaptureStderr();
      EXPECT_EQ(c.seconds, waitForDefaultTimeout());
      variableIs("WAITFOR_DEFAULT", "7");
      EXPECT_EQ(c.seconds, waitForDefaultTimeout());
      EXPECT_EQ(c.message, testing::internal::GetCapturedStderr());
    });
  }
}

TEST(RandomTest, theSeedComesFromTheVariableOnce) {
  U32 const past32 = sizeof(long) == 4 ? 4294967295u : 1215752191u;  // strtoul saturates, or not
  struct {
    char const* value;
    U32 seed;
  } const cases[] = {
      {"1234", 1234}, {" 12x", 12}, {"abc", 0}, {"-1", 4294967295u}, {"99999999999", past32},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.value);
    inChild([&c] {
      EXPECT_EQ(0u, Random::getSeed());
      variableIs("QXTEST_RANDSEED", c.value);
      Platform::setTraceFormat("%l %F %m");
      Platform::setupVeltroDebug("VeltroRandom");
      testing::internal::CaptureStderr();
      Random::setSeed();
      std::string const drawn = Random::randomString(16);
      variableIs("QXTEST_RANDSEED", "99");
      Random::setSeed();
      EXPECT_EQ(c.seed, Random::getSeed());
      EXPECT_EQ(drawn, Random::randomString(16));
      std::string const record =
          "0 setSeed Veltro::Random::setSeed(), setting seed to " + std::to_string(c.seed) + "\n";
      EXPECT_EQ(record + record, testing::internal::GetCapturedStderr());
    });
  }
}

TEST(RandomTest, withoutTheVariableEveryProcessHasItsOwnSeed) {
  inChild([] {
    ::unsetenv("QXTEST_RANDSEED");
    Random::setSeed();
    U32 const first = Random::getSeed();
    EXPECT_LT(first, 1000000000u);
    EXPECT_EQ("", Random::randomString(0));
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

TEST(SymbolsTest, aSymbolOfTheProgramIsFoundAndAMissingOneNoted) {
  RecordingHandler handler;
  void* const address = reinterpret_cast<void*>(&HeapChecker_RecordClientAlloc);
  std::ostringstream text;
  text << address;
  ::unsetenv("HEAPCHECK");
  EXPECT_EQ(nullptr, HeapChecker::resolveAllocSym(handler));
  EXPECT_EQ(nullptr, HeapChecker::resolveFreeSym(handler));
  EXPECT_THAT(handler.records, testing::IsEmpty());
  ::setenv("HEAPCHECK", "", 1);
  EXPECT_EQ(address, HeapChecker::resolveAllocSym(handler));
  EXPECT_EQ(nullptr, HeapChecker::resolveFreeSym(handler));
  EXPECT_THAT(
      handler.records,
      ElementsAre("5 Util::resolveSym() sym: HeapChecker_RecordClientAlloc found at " + text.str(),
                  testing::StartsWith("1 Util::resolveSym() symbolName: "
                                      "HeapChecker_RecordClientFree unable to resolve: ")));
}

std::string textOf(std::string const& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

TEST(CoreFilterTest, fileBackedSharedMappingsAreAdded) {
  inChild([] {
    std::string const path = "/proc/" + std::to_string(::getpid()) + "/coredump_filter";
    std::ofstream(path) << "0x33";
    Util::includeShmemInCore();
    EXPECT_EQ("0000003b\n", textOf(path));
    Util::includeShmemInCore();
    EXPECT_EQ("0000003b\n", textOf(path));
  });
}

TEST(CoreFilterTest, readAsHexadecimalWrittenAsDecimal) {
  if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to mount over /proc";
  inChild([] {
    ASSERT_TRUE(enterOwnMounts());
    ASSERT_EQ(0, ::mount("none", "/proc", "tmpfs", 0, nullptr));
    Util::includeShmemInCore();  // no filter file: nothing happens
    std::string const folder = "/proc/" + std::to_string(::getpid());
    std::string const path = folder + "/coredump_filter";
    Util::mkpath(folder, 0755);
    std::ofstream(path) << "33";
    Util::includeShmemInCore();
    EXPECT_EQ("59", textOf(path));
    int const descriptors = openDescriptors();
    std::ofstream(path) << "none";
    EXPECT_THAT(Util::includeShmemInCore,
                asserts("Veltro/UtilCpp", "includeShmemInCore",
                        "Veltro::Util::includeShmemInCore() fscanf failed for file: " + path +
                            " error: Success"));
    EXPECT_EQ(descriptors, openDescriptors());
  });
}

}  // namespace
}  // namespace Veltro
