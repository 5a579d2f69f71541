#include "Veltro/PluginCpp.h"

namespace {
struct Misnamed final : Veltro::Platform::Plugin {
  Misnamed() { Veltro::Platform::registerPlugin(this); }
  char const* name() override { return "OtherPlugin"; }
} misnamed;
}  // namespace
