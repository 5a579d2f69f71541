#include "Veltro/Counters.h"

namespace Veltro {

Counters::Counters(char const* name)
    : plugin_(static_cast<CountersPlugin*>(Platform::loadPlugin("PulseCountersPlugin"))) {
  if (plugin_ != nullptr && name != nullptr) plugin_->countersNameIs(name);
}

U64* Counters::counter(char const* counterName, U64* fallback) {
  return plugin_ == nullptr ? fallback : plugin_->counterPtr(counterName);
}

}  // namespace Veltro
