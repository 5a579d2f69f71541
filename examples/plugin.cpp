// A plugin is a shared object that registers an object as it is loaded; the agent asks for it by
// name and calls the operations that both agreed upon. This file is both sides: compiled with
// PLUGIN_SIDE it is libGreeter.so, without it the agent.
//
// Prints:
//   Greeter says: good day
//   no plugin of the name Singer
#include <cstdio>

#include "Veltro/PluginCpp.h"

// The interface: what the plugin adds behind name(), in an order that never changes.
class GreeterPlugin : public Veltro::Platform::Plugin {
 public:
  virtual char const* greeting() = 0;

 protected:
  ~GreeterPlugin() = default;
};

#ifdef PLUGIN_SIDE
namespace {

class Greeter final : public GreeterPlugin {
 public:
  Greeter() { Veltro::Platform::registerPlugin(this); }

 private:
  char const* name() override { return "Greeter"; }  // as in libGreeter.so
  char const* greeting() override { return "good day"; }
};
Greeter greeter;  // stays for the life of the process

}  // namespace
#else
int main() {
  // Found where shared libraries are: in the system's folders and in LD_LIBRARY_PATH.
  if (auto* const plugin = static_cast<GreeterPlugin*>(Veltro::Platform::loadPlugin("Greeter"))) {
    std::printf("%s says: %s\n", plugin->name(), plugin->greeting());
  }
  if (Veltro::Platform::loadPlugin("Singer") == nullptr) {
    std::puts("no plugin of the name Singer");
  }
}
#endif
