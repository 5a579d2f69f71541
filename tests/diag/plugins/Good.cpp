#include "Veltro/Exception.h"
#include "Veltro/PluginCpp.h"

namespace {
struct Good final : Veltro::Platform::Plugin {
  Good() { Veltro::Platform::registerPlugin(this); }
  char const* name() override { return "GoodPlugin"; }
} good;
}  // namespace

// Thrown here, caught by type in the program.
extern "C" __attribute__((visibility("default"))) void throwFromPlugin() {
  Veltro::InvalidSizeException::throwException("from the plugin");
}
