#include <cerrno>
#include <map>
#include <new>
#include <string>

#include "CounterSet.h"
#include "Veltro/Counters.h"

namespace Pulse {
namespace {

/// Publishes what Veltro::Counters hands out. The set in force is that of the last name given, the
/// program's own before the first; counters handed out before stay what they are.
class PulseCountersPlugin final : public Veltro::CountersPlugin {
 public:
  char const* name() override { return "PulseCountersPlugin"; }

  void countersNameIs(char const* name) override {
    set_ = &sets_.try_emplace(name, name).first->second;
  }

  U64* counterPtr(char const* counterName) override {
    if (set_ == nullptr) countersNameIs(::program_invocation_short_name);
    return set_->counter(counterName != nullptr ? counterName : "");
  }

 private:
  std::map<std::string, CounterSet> sets_;
  CounterSet* set_ = nullptr;
};

// Never destroyed: counters are used to the very end of the process.
alignas(PulseCountersPlugin) unsigned char storage[sizeof(PulseCountersPlugin)];

[[maybe_unused]] bool const registered = [] {
  Veltro::Platform::registerPlugin(new (storage) PulseCountersPlugin);
  return true;
}();

}  // namespace
}  // namespace Pulse
