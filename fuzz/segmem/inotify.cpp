// The inotify manager under any buffer: read(2) is wrapped, so that the manager reads the input in
// place of the kernel's events. Each watcher is told what a reference says, though watchers throw
// and destroy each other as they are told.
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <vector>

#include "Kiv/ActivityManager.h"
#include "Kiv/System.h"
#include "Mem/WatchDescriptor.h"
#include "fuzz/support/Fuzz.h"
#include "tests/support/TempDir.h"

namespace {
std::string const* injected = nullptr;
}

extern "C" ssize_t __real_read(int fd, void* buffer, std::size_t size);
extern "C" ssize_t __wrap_read(int fd, void* buffer, std::size_t size) {
  if (injected == nullptr) return __real_read(fd, buffer, size);
  char real[65536];
  while (__real_read(fd, real, sizeof real) > 0) {
  }
  std::string const& events = *std::exchange(injected, nullptr);
  std::size_t const bytes = std::min(size, events.size());
  std::memcpy(buffer, events.data(), bytes);
  return static_cast<ssize_t>(bytes);
}

namespace Veltro::fuzz {
namespace {

using Told = std::vector<std::pair<unsigned, std::string>>;  // "<mask> <name>", by watcher

enum class Act { nothing, throws, destroysItself, destroysTheNext };

Platform::DebugHandler& handler() {
  static auto& made = *Platform::getDebugHandler("Fuzz");
  return made;
}

struct Watcher final : Mem::InotifyMgr::Watcher {
  Watcher(unsigned mask, std::string const& path)
      : Mem::InotifyMgr::Watcher(handler()), watch(handler(), mask, path, this) {
    FUZZ_CHECK(watch.initialize(), path);
  }
  void notify(std::string const& name, unsigned mask) override;
  Mem::WatchDescriptor::WatchDescriptor watch;
  unsigned number = 0;
};

constexpr unsigned kWatchers = 4;

struct World {
  std::array<std::unique_ptr<Watcher>, kWatchers> watchers;
  std::array<Act, kWatchers> acts{};
  Told told;
};
World* world = nullptr;

void Watcher::notify(std::string const& name, unsigned mask) {
  world->told.emplace_back(number, std::to_string(mask) + " " + name);
  switch (world->acts[number]) {
    case Act::nothing:
      return;
    case Act::throws:
      throw std::runtime_error("told");
    case Act::destroysItself:
      world->watchers[number].reset();
      return;
    case Act::destroysTheNext:
      world->watchers[(number + 1) % kWatchers].reset();
      return;
  }
}

// The rules of telling: by number, in the order of joining; each its own bits and what all are
// told.
struct Reference {
  struct Entry {
    int wd;
    unsigned mask;
    bool exists = true;
  };
  std::array<Entry, kWatchers> entries;
  std::array<Act, kWatchers> acts;
  Told told;

  void event(int wd, unsigned mask, std::string const& name) {
    // The table is sorted by number, watchers of one number as they joined.
    std::multimap<int, unsigned> recipients;
    for (unsigned i = 0; i < kWatchers; ++i) {
      bool const meant = (mask & IN_Q_OVERFLOW) != 0 || entries[i].wd == wd;
      if (entries[i].exists && entries[i].wd >= 0 && meant) recipients.emplace(entries[i].wd, i);
    }
    if ((mask & IN_IGNORED) != 0) {
      for (auto const& recipient : recipients) entries[recipient.second].wd = -1;
    }
    unsigned const always = IN_IGNORED | IN_UNMOUNT | IN_Q_OVERFLOW;
    for (auto const& recipient : recipients) {
      unsigned const i = recipient.second;
      if (!entries[i].exists || (mask & (entries[i].mask | always)) == 0) continue;
      told.emplace_back(i, std::to_string(mask) + " " + name);
      if (acts[i] == Act::destroysItself) entries[i].exists = false;
      if (acts[i] == Act::destroysTheNext) entries[(i + 1) % kWatchers].exists = false;
    }
  }
  void buffer(std::string const& bytes) {
    inotify_event head;
    for (std::size_t at = 0; bytes.size() - at >= sizeof head;) {
      std::memcpy(&head, bytes.data() + at, sizeof head);
      at += sizeof head;
      if (bytes.size() - at < head.len) return;
      std::string const padded = bytes.substr(at, head.len);
      event(head.wd, head.mask, std::string(padded.c_str()));
      at += head.len;
    }
  }
};

// Events with the numbers of live watches and well-formed names, then raw bytes.
std::string composed(Input& input, World const& live) {
  std::string result;
  for (unsigned n = input.below(8); n > 0; --n) {
    inotify_event head{};
    head.wd = live.watchers[input.below(kWatchers)]->watch.wd() - (input.below(8) == 0 ? 1 : 0);
    head.mask = 1u << input.below(32);
    std::string name = input.line();
    head.len = static_cast<unsigned>(name.size());
    result.append(reinterpret_cast<char const*>(&head), sizeof head) += name;
  }
  return result + input.rest();
}

void run() {
  auto& config = Kiv::ActivityManager::instance().config();
  config.virtualTimeIs(true);
  config.executionTimeIs(1);
  try {
    Kiv::System::doRun();
  } catch (std::runtime_error const&) {
  }
  injected = nullptr;
}

}  // namespace
}  // namespace Veltro::fuzz

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace Veltro::fuzz;
  static Veltro::TempDir const temp;
  if (size > 8000) return -1;  // the manager reads 16 KiB at once
  Input input(data, size);

  World live;
  Reference reference;
  char const* const files[kWatchers] = {"a", "b", "a", "c"};
  for (unsigned i = 0; i < kWatchers; ++i) {
    std::string const path = temp.path(files[i]);
    std::ofstream(path, std::ios::app).flush();
    unsigned const mask = input.byte() | IN_OPEN;
    live.watchers[i] = std::make_unique<Watcher>(mask, path);
    live.watchers[i]->number = i;
    live.acts[i] = static_cast<Act>(input.below(4));
    reference.entries[i] = {live.watchers[i]->watch.wd(), mask};
  }
  reference.acts = live.acts;
  std::string const events = composed(input, live);
  reference.buffer(events);

  world = &live;
  injected = &events;
  std::ifstream(temp.path("a")).peek();  // an event, so that there is something to read
  run();
  FUZZ_CHECK(live.told == reference.told, live.told.size()
                                              << " told, not " << reference.told.size());
  for (char const* const file : files) std::remove(temp.path(file).c_str());
  return 0;
}
