#pragma once
#include <map>
#include <string>
#include <vector>

#include "Kiv/Ptr.h"
#include "Mem/Export.h"
#include "Veltro/Debug.h"

namespace Mem {

namespace WatchDescriptor {
class WatchDescriptor;
}

/// The process's one inotify descriptor, and who watches what through it.
///
/// The kernel keeps one watch for a file, however many watch it: the manager asks it for the
/// union of their masks and gives each only the events that it asked for. The watch goes with
/// the last of them. Overflow (IN_Q_OVERFLOW) reaches every watcher; IN_IGNORED reaches those
/// whose file is gone, and ends their watches.
///
/// Belongs to the thread that called getInotifyMgr() first: events arrive through that thread's
/// type-system loop. Made on first use, never destroyed; keeps the loop running only while
/// something is watched. A forked child gets an inotify descriptor of its own at its first use,
/// with the watches taken up anew, and never touches its parent's.
class MEM_API InotifyMgr final {
 public:
  /// By the kernel's number.
  using Table = std::multimap<int, WatchDescriptor::WatchDescriptor*>;

  /// What is told of events.
  class MEM_API Watcher : public Veltro::Debuggable {
   public:
    using Debuggable::Debuggable;
    ~Watcher() override;
    /// One event: the kernel's name for it ("" for the watched file itself) and its IN_ bits.
    /// Any watcher may be destroyed from here, this one too, and new ones made. An exception
    /// leaves the loop after the other events have been delivered.
    virtual void notify(std::string const& name, unsigned int mask) = 0;
    /// Whether this watcher's time-outs start anew when its file system is mounted again. For
    /// those who keep time-outs; the manager keeps none and does not ask.
    virtual bool remountTimeouts() const;
  };

  /// The process's one, made at the first call.
  static InotifyMgr& getInotifyMgr();

  /// Live watches by the kernel's number; watchers of one file follow each other in the order in
  /// which they joined.
  Table const& watchDescriptors() const { return table_; }

 private:
  friend class WatchDescriptor::WatchDescriptor;
  class Source;
  using Watch = WatchDescriptor::WatchDescriptor;

  InotifyMgr();
  bool _add(Watch& watch);
  void _del(Watch& watch);
  bool _watch(Watch& watch);
  void _forget(Watch& watch);
  bool _ownSource();
  void _reduceMask(int wd) const;
  void _dispatch(char const* events, std::size_t bytes);
  void _deliver(int wd, unsigned mask, std::string const& name);

  Table table_;
  Kiv::Ptr<Source> source_;  // the descriptor and its place in the loop; null until used
  // Those still to be told of the event under delivery; one that is withdrawn becomes null.
  std::vector<Watch*> recipients_;
};

}  // namespace Mem
