#pragma once
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "Veltro/Debug.h"

namespace Veltro {

/// Keeps every record as "level text", in order; all levels are on.
class RecordingHandler final : public Platform::DebugHandler {
 public:
  RecordingHandler() : DebugHandler("Recording") { levelsEnabled_ = &levels_; }

  void enabledIs(unsigned level, bool on) override {
    levels_ = on ? levels_ | (1u << level) : levels_ & ~(1u << level);
  }
  void dump(Platform::DebugStream& stream, unsigned level, char const*, int, char const*) override {
    records.push_back(std::to_string(level) + " " + stream.str());
    if (onRecord) onRecord(records.back());
    errno = 0;  // as any handler's work may
  }

  std::vector<std::string> records;
  /// Called inside the traced function, where a test may break things at that very step.
  std::function<void(std::string const&)> onRecord;

 private:
  U32 levels_ = ~0u;
};

}  // namespace Veltro
