// A counters plugin built without the library's headers, from the interface as it is published:
// the order of the virtual operations, and the function to register with.

namespace Veltro {
class Platform {
 public:
  class Plugin;
  static void registerPlugin(Plugin* plugin);
};
}  // namespace Veltro

namespace {

using Count = unsigned long long;

/// Hands out the number of naming calls as the counter "namings", and `others` for all other names.
struct ForeignPlugin {
  virtual char const* name() { return "PulseCountersPlugin"; }
  virtual void countersNameIs(char const* name) { namings += name != nullptr ? 1 : 1000; }
  virtual Count* counterPtr(char const* counter) { return counter[0] == 'n' ? &namings : &others; }
  Count namings = 0;
  Count others = 1000;
};

int registered() {
  static ForeignPlugin plugin;
  Veltro::Platform::registerPlugin(reinterpret_cast<Veltro::Platform::Plugin*>(&plugin));
  return 0;
}
[[maybe_unused]] int const atLoad = registered();

}  // namespace
