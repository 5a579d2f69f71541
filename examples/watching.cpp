// Watching a directory: each event of the kernel becomes changes of an entity, and a notifiee of
// the entity hears of them from the loop.
//
// Prints:
//   1: notes.txt was written
//   2: notes.txt was removed
#include <sys/inotify.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "Veltro/InotifyMgr.h"

namespace {

class Journal final : public Veltro::InotifyWatcher::Notifiee {
 public:
  using Notifiee::Notifiee;

 private:
  void onEventCount() override {
    Veltro::InotifyWatcher const& watcher = notifier();
    bool const removed = (watcher.eventMask() & IN_DELETE) != 0;
    std::printf("%u: %s was %s\n", watcher.eventCount(), watcher.event().charPtr(),
                removed ? "removed" : "written");
  }
};

}  // namespace

int main() {
  namespace fs = std::filesystem;
  fs::path const folder = fs::current_path() / "watched";
  fs::create_directory(folder);
  // Watches for as long as somebody holds the watcher; the notifiee does.
  auto const journal = Kiv::allocate<Journal>(
      Veltro::inotifyWatcherFactory(folder.c_str(), IN_CLOSE_WRITE | IN_DELETE));

  std::ofstream(folder / "notes.txt") << "x";
  fs::remove(folder / "notes.txt");
  int const status = Veltro::Platform::doEventLoop(0.05);  // a watcher alone waits for ever
  fs::remove(folder);
  return status;
}
