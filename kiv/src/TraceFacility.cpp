#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <set>
#include <unordered_map>

#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "TraceRecord.h"

namespace Kiv {
namespace {

U32 applied(std::deque<TraceSetting> const& settings, Name name, U32 levels) {
  for (TraceSetting const& setting : settings) {
    if (setting.matches(name)) levels = setting.applied(levels);
  }
  return levels;
}

/// An entry that switches nothing: blanks, or the lone "-" that negating an empty list makes.
bool isNothing(std::string const& entry) {
  constexpr char const* kBlanks = " \t\r\n\v\f";
  std::size_t const first = entry.find_first_not_of(kBlanks);
  if (first == std::string::npos) return true;
  return entry[first] == '-' && entry.find_last_not_of(kBlanks) == first;
}

struct Parsed {
  std::deque<TraceSetting> settings;
  std::deque<std::string> complaints;
};

Parsed parsed(std::string const& trace) {
  Parsed result;
  for (std::size_t begin = 0; begin <= trace.size();) {
    std::size_t const comma = std::min(trace.find(',', begin), trace.size());
    std::string const entry = trace.substr(begin, comma - begin);
    begin = comma + 1;
    if (isNothing(entry)) continue;
    try {
      result.settings.emplace_back(entry);
    } catch (RangeException const& fault) {
      result.complaints.emplace_back(fault.what());
    }
  }
  return result;
}

}  // namespace

void TraceFacility::levelEnabledIs(unsigned level, bool on) {
  if (level > 31) throw RangeException("trace level " + std::to_string(level) + " is above 31");
  U32 const bit = 1u << level;
  if (on) {
    __atomic_fetch_or(&levels_, bit, __ATOMIC_RELAXED);
  } else {
    __atomic_fetch_and(&levels_, ~bit, __ATOMIC_RELAXED);
  }
}

TraceHandle::TraceHandle(std::string const& name, U32 initialLevels)
    : facility_(TraceFacilityManager::instance()._facility(name, initialLevels)) {}

struct TraceFacilityManager::Impl {
  std::mutex mutex;
  std::unordered_map<Name, TraceFacility*> facilities;
  std::deque<TraceSetting> settings;
  std::set<std::string> noted;  // complaints already made: TRACE only grows and is read often
};

TraceFacilityManager& TraceFacilityManager::instance() {
  static TraceFacilityManager& manager = *new TraceFacilityManager;
  return manager;
}

TraceFacilityManager::TraceFacilityManager() : impl_(new Impl) { doReadEnvironment(); }

void TraceFacilityManager::doReadEnvironment() {
  Parsed now = parsed(environment("TRACE"));
  traceFormatIs(environment("TRACEFORMAT"));
  std::string notes;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->settings = std::move(now.settings);
    _apply(impl_->settings);
    for (std::string const& complaint : now.complaints) {
      if (impl_->noted.insert(complaint).second) notes += "TRACE: " + complaint + ", ignored\n";
    }
  }
  traceWrite(notes);
}

// Under the lock. All entries at once, so that no statement sees the state between "A" and "-A".
void TraceFacilityManager::_apply(std::deque<TraceSetting> const& settings) {
  for (auto const& [name, facility] : impl_->facilities) {
    U32 old = __atomic_load_n(&facility->levels_, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&facility->levels_, &old, applied(settings, name, old),
                                        true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    }
  }
}

void TraceFacilityManager::settingAdd(TraceSetting const& setting) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->settings.push_back(setting);
  _apply({setting});
}

TraceFacilityManager::State TraceFacilityManager::state() const {
  State state;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    state.settings = impl_->settings;
    for (auto const& [name, facility] : impl_->facilities) {
      state.levels.emplace_back(facility, __atomic_load_n(&facility->levels_, __ATOMIC_RELAXED));
    }
  }
  std::sort(state.levels.begin(), state.levels.end(), [](auto const& a, auto const& b) {
    return a.first->name().stdString() < b.first->name().stdString();
  });
  return state;
}

void TraceFacilityManager::stateIs(State const& state) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->settings = state.settings;
  for (auto const& [name, facility] : impl_->facilities) {
    U32 levels = applied(state.settings, name, 0);
    for (auto const& [known, before] : state.levels) {
      if (known == facility) levels = before;
    }
    __atomic_store_n(&facility->levels_, levels, __ATOMIC_RELAXED);
  }
}

std::deque<TraceSetting> TraceFacilityManager::settings() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->settings;
}

std::string TraceFacilityManager::environment(char const* variable) {
  char const* const value = ::getenv(variable);
  return value == nullptr ? "" : value;
}

void TraceFacilityManager::environmentIs(char const* variable, std::string const& value) {
  if (::setenv(variable, value.c_str(), 1) != 0) {
    throw ErrnoException(std::string("setenv ") + variable, errno);
  }
}

TraceFacility* TraceFacilityManager::_facility(Name name, U32 initialLevels) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  TraceFacility*& facility = impl_->facilities[name];
  if (facility == nullptr) {
    facility = new TraceFacility(name, applied(impl_->settings, name, initialLevels));
  }
  return facility;
}

}  // namespace Kiv
