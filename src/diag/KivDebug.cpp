#include "diag/KivDebug.h"

namespace KivVeltro {

KivDebug::KivDebug(std::string const& name) : TraceHandle(name, 0), DebugHandler(name) {
  Veltro::U32 const* const live = facility()->levelsEnabledPtr();
  levelsEnabled_ = live != nullptr ? live : &ownLevels_;
}

void KivDebug::enabledIs(unsigned level, bool on) { facility()->levelEnabledIs(level, on); }

void KivDebug::dump(Veltro::Platform::DebugStream& stream, unsigned level, char const* file,
                    int line, char const* function) {
  Kiv::traceHelper(*this, level, 1, file, line, function, stream.str().c_str());
}

}  // namespace KivVeltro

namespace Veltro {

Platform::DebugHandler* Platform::getDebugHandler(std::string const& name) {
  return new KivVeltro::KivDebug(name);
}

}  // namespace Veltro
