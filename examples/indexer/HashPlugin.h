#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

#include "Veltro/PluginCpp.h"

namespace Indexer {

/// A hash function of 64 bits that comes as a plugin: `--hash NAME` loads libIndexerHash-NAME.so.
/// One of your own: derive, register in the constructor, have one static object (plugins/). The
/// order of the operations is the interface.
/// Keeps no state between calls, so that any thread may use it.
class HashPlugin : public Veltro::Platform::Plugin {
 public:
  /// The hash of nothing.
  virtual std::uint64_t start() const = 0;
  /// The hash of what `hash` stands for and these bytes behind it.
  virtual std::uint64_t hashOn(std::uint64_t hash, unsigned char const* bytes,
                               std::size_t length) const = 0;

 protected:
  ~HashPlugin() = default;  // not virtual: it would take slots of its own
};

/// Loads the plugin for the calling thread, or throws std::runtime_error with a line for the user.
/// It stays loaded for the life of the process.
HashPlugin const& loadHash(std::string const& name);

}  // namespace Indexer
