#pragma once
#include "Kiv/Trace.h"
#include "Veltro/Debug.h"

namespace KivVeltro {

/// A debug handler that is a trace category of the type system: its mask is the category's own
/// level word, so a change of the settings acts on the next trace statement.
class KivDebug final : public Kiv::TraceHandle, public Veltro::Platform::DebugHandler {
 public:
  explicit KivDebug(std::string const& name);
  void enabledIs(unsigned level, bool on) override;
  void dump(Veltro::Platform::DebugStream& stream, unsigned level, char const* file, int line,
            char const* function) override;
};

}  // namespace KivVeltro
