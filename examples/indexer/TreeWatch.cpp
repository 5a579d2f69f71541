#include "TreeWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "PathRange.h"
#include "Veltro/Exception.h"

namespace Indexer {
namespace {

constexpr Veltro::U32 kGone = IN_DELETE | IN_MOVED_FROM;
constexpr Veltro::U32 kEntries = IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | kGone | IN_ONLYDIR;
// A directory below the root is moved or removed under its parent's eyes; the root is not.
constexpr Veltro::U32 kRootItself = IN_DELETE_SELF | IN_MOVE_SELF;

// The watcher does not say why it failed; a second try on a descriptor of its own does.
int reasonAgainst(std::string const& path) {
  int const fd = ::inotify_init1(IN_CLOEXEC);
  if (fd < 0) return errno;
  int const reason = ::inotify_add_watch(fd, path.c_str(), kEntries) < 0 ? errno : EAGAIN;
  ::close(fd);
  return reason;
}

}  // namespace

class TreeWatch::Directory final : public Veltro::InotifyWatcher::Notifiee {
 public:
  Directory(TreeWatch& watch, std::string path, Kiv::Ptr<Veltro::InotifyWatcher> const& watcher)
      : Notifiee(watcher), watch_(watch), path_(std::move(path)) {}

  std::string const& path() const { return path_; }
  void onEventCount() override {
    Kiv::Ptr<Directory> const self(this);  // the event may be the end of this watch
    watch_._event(*this, notifier().event().stdString(), notifier().eventMask());
  }

 private:
  TreeWatch& watch_;
  std::string const path_;
};

TreeWatch::TreeWatch(std::shared_ptr<Veltro::TaskScheduler> scheduler, std::string root,
                     Observer& observer)
    : Task(std::move(scheduler), Veltro::TaskPriority::normal, "watch"),
      root_(std::move(root)),
      observer_(observer) {}

TreeWatch::~TreeWatch() = default;

void TreeWatch::add(std::string const& path) {
  if (directories_.count(path) > 0) return;
  try {
    auto const watcher =
        Veltro::inotifyWatcherFactory(path, path == root_ ? kEntries | kRootItself : kEntries);
    directories_[path] = Kiv::allocate<Directory>(*this, path, watcher);
    unwatched_.erase(path);
  } catch (Veltro::InvalidInitializeException const&) {
    int const reason = reasonAgainst(path);
    if (reason == ENOENT || reason == ENOTDIR) return;  // gone again, as its parent's watch tells
    unwatched_.insert(path);
    observer_.unwatchable(path, reason);
  }
}

void TreeWatch::forget(std::string const& path) {
  eraseTree(directories_, path);
  eraseTree(unwatched_, path);
}

void TreeWatch::close() {
  unscheduleTask();
  directories_.clear();
  pending_.clear();
}

void TreeWatch::_event(Directory& directory, std::string const& name, Veltro::U32 mask) {
  if ((mask & IN_Q_OVERFLOW) != 0) {
    overflowed_ = true;  // every directory is told; one walk does for all
    scheduleTask();
    return;
  }
  if ((mask & IN_IGNORED) != 0) {
    auto const known = directories_.find(directory.path());
    if (known != directories_.end() && known->second == &directory) directories_.erase(known);
    return;
  }
  bool const itself = (mask & (kRootItself | IN_UNMOUNT)) != 0;
  if (!itself && name.empty()) return;
  bool& anew = pending_[itself ? directory.path() : directory.path() + "/" + name];
  anew = anew || itself || (mask & (kGone | IN_ISDIR)) != 0;
  scheduleTask();
}

void TreeWatch::taskExecute() {
  if (overflowed_) {
    overflowed_ = false;
    pending_.clear();
    forget(root_);
    observer_.overflowed();
  }
  std::uint64_t told = 0;
  while (!pending_.empty() && !taskShouldYield()) {
    auto const change = pending_.extract(pending_.begin());
    observer_.changed(change.key(), change.mapped());
    ++told;
  }
  taskWorkCountInc(told);
  if (!pending_.empty()) scheduleTask();
}

}  // namespace Indexer
