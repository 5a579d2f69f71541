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
#include <stdexcept>
#include <utility>

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
  return static_cast<ssize_t>(events.copy(static_cast<char*>(buffer), size));
}

namespace Veltro::fuzz {
namespace {

Platform::DebugHandler& handler = *Platform::getDebugHandler("Fuzz");

constexpr unsigned kWatchers = 4;
enum class Act { nothing, throws, destroysItself, destroysTheNext };
using Told = std::vector<std::pair<unsigned, std::string>>;  // "<mask> <name>", by watcher

struct Watcher final : Mem::InotifyMgr::Watcher {
  Watcher(unsigned theNumber, unsigned mask, std::string const& path)
      : Mem::InotifyMgr::Watcher(handler), number(theNumber), watch(handler, mask, path, this) {
    FUZZ_CHECK(watch.initialize(), path);
  }
  void notify(std::string const& name, unsigned mask) override;
  unsigned const number;
  Mem::WatchDescriptor::WatchDescriptor watch;
};

std::array<std::unique_ptr<Watcher>, kWatchers> watchers;
std::array<Act, kWatchers> acts;
Told told;

/// Whom a watcher destroys as it is told; kWatchers for nobody.
unsigned victim(unsigned number) {
  if (acts[number] == Act::destroysItself) return number;
  return acts[number] == Act::destroysTheNext ? (number + 1) % kWatchers : kWatchers;
}

void Watcher::notify(std::string const& name, unsigned mask) {
  told.emplace_back(number, std::to_string(mask) + " " + name);
  if (acts[number] == Act::throws) throw std::runtime_error("told");
  if (unsigned const gone = victim(number); gone < kWatchers) watchers[gone].reset();
}

// The rules of telling: by number, in the order of joining; each its own bits and what all are
// told.
struct Reference {
  struct Entry {
    int wd;
    unsigned mask;
  };
  std::array<Entry, kWatchers + 1> entries;  // the last is nobody's
  Told told;

  void event(int wd, unsigned mask, std::string const& name) {
    // The table is sorted by number, watchers of one number as they joined.
    std::multimap<int, unsigned> recipients;
    for (unsigned i = 0; i < kWatchers; ++i) {
      bool const meant = (mask & IN_Q_OVERFLOW) != 0 || entries[i].wd == wd;
      if (entries[i].wd >= 0 && meant) recipients.emplace(entries[i].wd, i);
    }
    if ((mask & IN_IGNORED) != 0) {
      for (auto const& recipient : recipients) entries[recipient.second].wd = -1;
    }
    unsigned const always = IN_IGNORED | IN_UNMOUNT | IN_Q_OVERFLOW;
    for (auto const& recipient : recipients) {
      unsigned const i = recipient.second;
      if ((mask & (entries[i].mask | (entries[i].mask != 0 ? always : 0))) == 0) continue;
      told.emplace_back(i, std::to_string(mask) + " " + name);
      entries[victim(i)] = {-1, 0};
    }
  }
  void buffer(std::string const& bytes) {
    inotify_event head;
    for (std::size_t at = 0; bytes.size() - at >= sizeof head; at += head.len) {
      std::memcpy(&head, bytes.data() + at, sizeof head);
      at += sizeof head;
      if (bytes.size() - at < head.len) return;
      event(head.wd, head.mask, bytes.substr(at, head.len).c_str());
    }
  }
};

// Events with the numbers of live watches and well-formed names, then raw bytes.
std::string composed(Input& input) {
  std::string result;
  for (unsigned n = input.below(8); n > 0; --n) {
    inotify_event head{};
    head.wd = watchers[input.below(kWatchers)]->watch.wd() - (input.below(8) == 0 ? 1 : 0);
    head.mask = 1u << input.below(32);
    std::string const name = input.line();
    head.len = static_cast<unsigned>(name.size());
    result.append(reinterpret_cast<char const*>(&head), sizeof head) += name;
  }
  return result + input.rest();
}

void runLoop() {
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

int run(Input& input) {
  static TempDir const temp;
  if (input.size() > 8000) return -1;  // the manager reads 16 KiB at once
  Reference reference{};
  char const* const files[kWatchers] = {"a", "b", "a", "c"};
  for (unsigned i = 0; i < kWatchers; ++i) {
    std::string const path = temp.path(files[i]);
    std::ofstream(path, std::ios::app).flush();
    unsigned const mask = input.byte() | IN_OPEN;
    watchers[i] = std::make_unique<Watcher>(i, mask, path);
    acts[i] = static_cast<Act>(input.below(4));
    reference.entries[i] = {watchers[i]->watch.wd(), mask};
  }
  std::string const events = composed(input);
  reference.buffer(events);

  told.clear();
  injected = &events;
  std::ifstream(temp.path("a")).peek();  // an event, so that there is something to read
  runLoop();
  FUZZ_CHECK(told == reference.told, told.size() << " told, not " << reference.told.size());
  for (auto& watcher : watchers) watcher.reset();
  for (char const* const file : files) std::remove(temp.path(file).c_str());
  return 0;
}

}  // namespace Veltro::fuzz
