#pragma once
#include <deque>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include "Kiv/Export.h"
#include "Kiv/Name.h"
#include "Kiv/Types.h"

namespace Kiv {

/// One trace category: its name and its 32 levels, bit n for level n.
/// One per name, shared by every handle of that name, never destroyed.
/// The level word is read without a lock by every trace statement: a change is seen at once, or
/// one statement late.
class KIV_API TraceFacility final {
 public:
  /// The category.
  Name name() const { return name_; }
  /// The live level word, valid for ever. Other threads change it with relaxed atomic operations:
  /// read it as `__atomic_load_n(pointer, __ATOMIC_RELAXED)`, which is one plain load.
  U32 const* levelsEnabledPtr() const { return &levels_; }
  /// Switches one level, 0 to 31; any other throws RangeException.
  void levelEnabledIs(unsigned level, bool on);

 private:
  friend class TraceFacilityManager;
  explicit TraceFacility(Name name, U32 levels) : name_(name), levels_(levels) {}
  Name name_;
  U32 levels_;  // a plain word for its readers' sake, touched by __atomic builtins only
};

/// What code holds to trace under a name. Making one finds or makes the facility.
class KIV_API TraceHandle {
 public:
  /// `initialLevels` counts only for the first handle of the name; TRACE is applied on top.
  TraceHandle(std::string const& name, U32 initialLevels);
  /// The one of all handles of that name.
  TraceFacility* facility() const { return facility_; }

 private:
  TraceFacility* facility_;
};

/// One entry of TRACE, as it was written, without the blanks around it.
class KIV_API TraceSetting final {
 public:
  /// Parses `["-"] name ["/" levels]`. In the name `*` stands for any run of characters; levels are
  /// `N`, `N-M` or `*`, all 32 when left out; what follows the last "/" is always the levels.
  /// Malformed text throws RangeException, which names the text and what is wrong with it.
  explicit TraceSetting(std::string const& text);
  /// Whether it is about that category.
  bool matches(Name name) const;
  /// `levels` with this setting applied.
  U32 applied(U32 levels) const;
  /// As it was written, trimmed.
  std::string const& text() const { return text_; }

 private:
  std::string text_;
  std::string pattern_;
  U32 mask_ = 0;
  bool on_ = true;
};

KIV_API std::ostream& operator<<(std::ostream& os, TraceSetting const& setting);

/// All facilities of the process and the settings that TRACE and TRACEFORMAT ask for.
/// Made by the first handle, reads the environment as it is made, is never destroyed.
/// Its operations lock, and may be called from any thread; the environment itself is the caller's
/// to guard (setenv is not safe against getenv in another thread).
class KIV_API TraceFacilityManager final {
 public:
  /// The process's one; made by the first handle.
  static TraceFacilityManager& instance();

  /// Reads TRACE and TRACEFORMAT again: replaces the settings and applies each in order on top
  /// of the live levels. A malformed entry is noted on standard error, once in the life of the
  /// process, and skipped.
  void doReadEnvironment();
  /// Adds one setting to those in force, and applies it: as if TRACE had ended with it, without
  /// a touch to the environment.
  void settingAdd(TraceSetting const& setting);
  /// The settings in force, and every facility with its levels, in the order of their names.
  struct State {
    std::deque<TraceSetting> settings;
    std::vector<std::pair<TraceFacility*, U32>> levels;
  };
  State state() const;
  /// Goes back to an earlier state. A facility made since gets the levels that the settings alone
  /// give it.
  void stateIs(State const& state);
  /// A copy of the settings in force, in the order of TRACE.
  std::deque<TraceSetting> settings() const;

  /// The process's value of an environment variable, "" when it is not set.
  static std::string environment(char const* variable);
  /// Sets it, overwriting.
  static void environmentIs(char const* variable, std::string const& value);

 private:
  friend class TraceHandle;
  TraceFacilityManager();
  void _apply(std::deque<TraceSetting> const& settings);
  TraceFacility* _facility(Name name, U32 initialLevels);
  struct Impl;
  Impl* impl_;
};

/// Writes one record to standard error, in the format of TRACEFORMAT: `%T` local time
/// HH:MM:SS.uuuuuu, `%p` process, `%t` thread, `%n` category, `%l` level, `%f` file, `%L` line,
/// `%F` function, `%m` text, `%%` a percent sign; anything else stands for itself. An empty format
/// is
/// "%T %p %n/%l %F: %m". Bit 0 of `flag` asks for a newline where the record does not end in one.
///
/// A record is one write(2), so threads and processes never mix lines; on a pipe the kernel
/// promises that up to PIPE_BUF (4096) bytes, and splits longer ones only when the pipe is full.
/// Takes no lock of its own (the C library does, for memory and the time zone: not for signal
/// handlers). A null file, function or text counts as empty. errno is kept; a record that
/// standard error does not take is dropped.
KIV_API void traceHelper(TraceHandle const& handle, unsigned level, int flag, char const* file,
                         int line, char const* function, char const* text);

}  // namespace Kiv
