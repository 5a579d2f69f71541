#pragma once
#include <map>
#include <string>

#include "Veltro/Export.h"

namespace Veltro {

/// What a counter is, for people and collectors.
struct CounterDescription {
  std::string kind;  ///< "counter": only grows within a generation; "gauge": goes up and down
  std::string unit;  ///< of one step: "bytes", "files"; "" when it has none
  std::string help;  ///< one sentence
  /// True when nothing is said about the counter.
  bool empty() const { return kind.empty(); }
};

/// What an agent says about its counters, by key: kept in a text file beside the counters'
/// attribute log, where `veltro counters` finds it.
///
///     Kiv::AttributeLog::save(*manager, log);
///     CounterDescriptions about;
///     about.descriptionIs("files", {"counter", "files", "Files indexed since the start."});
///     about.save(CounterDescriptions::pathOf(log));
///
/// The file is one table in the value form of libkiv, an entry a line; it may also be written by
/// hand, once for all. A value: nothing is shared, any thread.
class VELTRO_API CounterDescriptions final {
 public:
  /// Where the descriptions of the counters in `log` are looked for.
  static std::string pathOf(std::string const& log) { return log + ".about"; }

  /// Replaces what was said of `key`. A kind other than the two throws Kiv::RangeException.
  void descriptionIs(std::string const& key, CounterDescription description);
  /// Empty for a key that nothing was said of.
  CounterDescription description(std::string const& key) const;

  /// Replaces the file in one step: a reader sees the old one or the new one. Throws
  /// Kiv::ErrnoException where that fails.
  void save(std::string const& path) const;
  /// A missing file holds no descriptions. One that cannot be read throws Kiv::ErrnoException, one
  /// that does not parse Kiv::RangeException.
  static CounterDescriptions load(std::string const& path);

 private:
  std::map<std::string, CounterDescription> descriptions_;
};

}  // namespace Veltro
