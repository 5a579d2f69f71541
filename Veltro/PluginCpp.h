#pragma once
#include "Veltro/Platform.h"

namespace Veltro {

/// What a plugin's shared object registers. A plugin NAME is the file libNAME.so; a static object
/// of it calls Platform::registerPlugin() with a Plugin whose name() is NAME, and stays for the
/// life of the process.
///
/// name() is the first virtual operation and the only one: plugins that are built elsewhere add
/// theirs behind it. So there is no virtual destructor, and nobody deletes a plugin through this.
///
/// The registry is each thread's own: a plugin is known to the thread that loaded it. A second
/// thread that loads it finds it mapped already, its static objects do not run again, and
/// loadPlugin() raises its assertion there.
///
///   Platform::loadPlugin(name): the registered plugin; null, with a note at level 0 of
///     "VeltroPlugin", when the file cannot be opened; an assertion when the file registers
///     nothing under that name. Files stay loaded.
///   Platform::registerPlugin(plugin): an assertion when the thread knows the name already; inside
///     dlopen that ends the process, for no exception passes through the dynamic linker.
class VELTRO_API Platform::Plugin {
 public:
  /// The NAME of libNAME.so; valid as long as the plugin.
  virtual char const* name() = 0;

 protected:
  ~Plugin() = default;
};

}  // namespace Veltro
