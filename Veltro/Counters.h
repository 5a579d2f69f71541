#pragma once
#include "Veltro/Platform.h"
#include "Veltro/PluginCpp.h"

namespace Veltro {

/// What the plugin "PulseCountersPlugin" provides. The order of the operations is the interface:
/// plugins are built apart from the library.
class VELTRO_API CountersPlugin : public Platform::Plugin {
 public:
  /// Which counter set this process publishes.
  virtual void countersNameIs(char const* name) = 0;
  /// The live counter of that name, the same address at every call, aligned to 8 bytes.
  virtual U64* counterPtr(char const* counterName) = 0;

 protected:
  ~CountersPlugin() = default;  // not virtual: it would take slots of its own
};

/// The always-safe door to 64-bit counters: live ones, that other processes see, when the plugin
/// "PulseCountersPlugin" can be loaded; the caller's own storage when it cannot.
///
///     Counters counters("indexer");
///     U64 ownFiles = 0;
///     U64& files = *counters.counter("files", &ownFiles);
///     ++files;
///
/// The plugin is looked up once, here, in the calling thread's registry (Veltro/PluginCpp.h): make
/// the facade on the thread that loads plugins. Counters are used without lock: one thread a
/// counter. On 32 bits another process may catch a plain `++` between its two halves; an atomic
/// store of 8 bytes, __atomic_store_n(&files, value, __ATOMIC_RELAXED), is never seen halfway.
class VELTRO_API Counters final {
 public:
  /// A null `name` leaves the counter set as it is.
  explicit Counters(char const* name);
  /// The live counter, or `fallback` (which may be null) without the plugin.
  U64* counter(char const* counterName, U64* fallback);

 private:
  CountersPlugin* plugin_;  // the registry's
};

}  // namespace Veltro
