#include "Veltro/PluginCpp.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <thread>

#include "Veltro/Exception.h"
#include "tests/support/Asserts.h"
#include "tests/support/StandardError.h"

namespace Veltro {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

auto failsToRegister(std::string const& name) {
  return asserts("Veltro/PluginCpp", "loadPlugin",
                 "Veltro::Platform::loadPlugin() Phooey -- plugin " + name + " failed to register");
}

struct PluginTest : testing::Test {
  PluginTest() {
    Platform::setTraceFormat("%n/%l %m");
    Platform::setupVeltroDebug("VeltroPlugin");
  }
  Platform::Plugin* load(char const* name) {
    Platform::Plugin* plugin = nullptr;
    lines = standardError([&] { plugin = Platform::loadPlugin(name); });
    return plugin;
  }
  std::vector<std::string> lines;
};

TEST_F(PluginTest, aGoodOneIsLoadedOnceByEachThread) {
  Platform::Plugin* const plugin = load("GoodPlugin");
  ASSERT_NE(nullptr, plugin);
  EXPECT_STREQ("GoodPlugin", plugin->name());
  std::string const register_ = "Veltro::Platform::registerPlugin() ";
  std::string const load_ = "Veltro::Platform::loadPlugin() ";
  EXPECT_THAT(lines, ElementsAre("VeltroPlugin/0 " + register_ + "adding plugin GoodPlugin",
                                 "VeltroPlugin/0 " + load_ + "Yay!  Plugin GoodPlugin loaded"));
  EXPECT_EQ(plugin, load("GoodPlugin"));
  EXPECT_THAT(lines, ElementsAre("VeltroPlugin/1 " + load_ + "GoodPlugin already loaded"));
  EXPECT_THAT([&] { Platform::registerPlugin(plugin); },
              asserts("Veltro/PluginCpp", "registerPlugin",
                      register_ + "Plugin GoodPlugin already registered"));
  std::thread([] {
    EXPECT_THAT([] { Platform::loadPlugin("GoodPlugin"); }, failsToRegister("GoodPlugin"));
  }).join();
  auto* const thrower = reinterpret_cast<void (*)()>(::dlsym(RTLD_DEFAULT, "throwFromPlugin"));
  ASSERT_NE(nullptr, thrower);
  EXPECT_THROW(thrower(), CorruptionDetectedException) << "caught by type across objects";
}

TEST_F(PluginTest, whatIsNoPluginOfTheNameIsRefused) {
  EXPECT_THAT([] { Platform::loadPlugin("MisnamedPlugin"); }, failsToRegister("MisnamedPlugin"));
  EXPECT_NE(nullptr, load("OtherPlugin")) << "it is known by its own name";
  for (char const* name : {"NoSuchPlugin", "", "../x"}) {
    EXPECT_EQ(nullptr, load(name));
    EXPECT_THAT(lines,
                ElementsAre(HasSubstr(std::string("Failed to load plugin ") + name + ": lib")));
  }
}

}  // namespace
}  // namespace Veltro
