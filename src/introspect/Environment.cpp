// What the environment asks for, for every root that schedulerRootVeltro() makes.
#include <cstdlib>
#include <iostream>
#include <optional>

#include "Veltro/Exception.h"
#include "Veltro/Introspection.h"
#include "Veltro/StallWatchdog.h"
#include "sched/RootCompanion.h"

namespace Veltro {
namespace {

struct Companion final : RootCompanion {
  std::optional<Introspection> seen;
  std::optional<StallWatchdog> watched;
};

/// "" when it is not set, or switched off.
std::string settingOf(char const* variable) {
  char const* const value = std::getenv(variable);
  return value == nullptr || std::string(value) == "0" ? "" : value;
}

/// An agent that cannot be seen works all the same.
template <typename Function>
void orSayWhyNot(char const* variable, Function&& function) {
  try {
    function();
  } catch (std::exception const& fault) {
    std::cerr << variable << ": " << fault.what() << std::endl;
  }
}

std::unique_ptr<RootCompanion> companionOf(TaskSchedulerRoot& root) {
  std::string const seen = settingOf("VELTRO_INTROSPECT");
  std::string const watched = settingOf("VELTRO_WATCHDOG");
  if (seen.empty() && watched.empty()) return nullptr;
  auto companion = std::make_unique<Companion>();
  if (!seen.empty()) {
    orSayWhyNot("VELTRO_INTROSPECT", [&] {
      companion->seen.emplace(root, seen[0] == '/' ? seen : Introspection::defaultDirectory());
    });
  }
  if (!watched.empty()) {
    orSayWhyNot("VELTRO_WATCHDOG", [&] {
      auto const limit = std::chrono::milliseconds(std::strtoul(watched.c_str(), nullptr, 10));
      bool const given = limit > std::chrono::milliseconds(1);
      companion->watched.emplace(root, given ? limit : std::chrono::milliseconds(0));
    });
  }
  return companion;
}

[[maybe_unused]] bool const hooked = (makeRootCompanion = companionOf, true);

}  // namespace
}  // namespace Veltro
