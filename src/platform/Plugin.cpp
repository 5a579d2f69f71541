#include <dlfcn.h>

#include <string>
#include <unordered_map>

#include "Veltro/Debug.h"
#include "Veltro/PluginCpp.h"

namespace Veltro {

// Each thread's own: a plugin is registered where its file is loaded. Owns no plugin.
static thread_local std::unordered_map<std::string, Platform::Plugin*> pluginMap_;

namespace {

constexpr char const* kSourceFile = "Veltro/PluginCpp";
constexpr Platform::DebugHandler* kNoHandler = nullptr;

Platform::DebugHandler& debug() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("VeltroPlugin");
  return *handler;
}
[[maybe_unused]] Platform::DebugHandler& atLoad = debug();

Platform::Plugin* registered(char const* name) {
  auto const entry = pluginMap_.find(name);
  return entry != pluginMap_.end() ? entry->second : nullptr;
}

}  // namespace

void Platform::registerPlugin(Plugin* plugin) {
  char const* const name = plugin->name();
  VELTRO_ASSERT(kNoHandler, registered(name) == nullptr,
                "Veltro::Platform::registerPlugin() Plugin " << name << " already registered");
  VELTRO_TRACE(debug(), 0, "Veltro::Platform::registerPlugin() adding plugin " << name);
  pluginMap_.emplace(name, plugin);
}

Platform::Plugin* Platform::loadPlugin(char const* name) {
  if (Plugin* const plugin = registered(name)) {
    VELTRO_TRACE(debug(), 1, "Veltro::Platform::loadPlugin() " << name << " already loaded");
    return plugin;
  }
  std::string const file = std::string("lib") + name + ".so";
  if (::dlopen(file.c_str(), RTLD_NOW | RTLD_GLOBAL) == nullptr) {
    char const* const reason = ::dlerror();
    VELTRO_TRACE(debug(), 0,
                 "Veltro::Platform::loadPlugin() Failed to load plugin " << name << ": " << reason);
    return nullptr;
  }
  Plugin* const plugin = registered(name);
  VELTRO_ASSERT(
      kNoHandler, plugin != nullptr,
      "Veltro::Platform::loadPlugin() Phooey -- plugin " << name << " failed to register");
  VELTRO_TRACE(debug(), 0, "Veltro::Platform::loadPlugin() Yay!  Plugin " << name << " loaded");
  return plugin;
}

}  // namespace Veltro
