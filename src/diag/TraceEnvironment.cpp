#include <iostream>
#include <string>

#include "Kiv/Trace.h"
#include "Veltro/Platform.h"

namespace Veltro {
namespace {

using Manager = Kiv::TraceFacilityManager;

void environmentIs(char const* variable, std::string const& value) {
  Manager& manager = Manager::instance();
  Manager::environmentIs(variable, value);
  manager.doReadEnvironment();
}

}  // namespace

void Platform::setupVeltroDebug(char const* spec) {
  if (spec == nullptr) return;
  std::string const before = Manager::environment("TRACE");
  environmentIs("TRACE", before.empty() ? spec : before + "," + spec);
}

// What was set is negated, never removed: entries act in their order, so the later one counts.
void Platform::clearVeltroDebug(char const* spec) {
  if (spec == nullptr) return;
  std::string negation = "-";
  for (char const* at = spec; *at != '\0'; ++at) {
    negation += *at;
    if (*at == ',') negation += '-';
  }
  setupVeltroDebug(negation.c_str());
}

void Platform::dumpVeltroDebugMap() {
  for (auto const& setting : Manager::instance().settings()) std::cout << setting << std::endl;
}

void Platform::setTraceFormat(char const* format) {
  if (format != nullptr) environmentIs("TRACEFORMAT", format);
}

void Platform::clearTraceFormat() { environmentIs("TRACEFORMAT", ""); }

}  // namespace Veltro
