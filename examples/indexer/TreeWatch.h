#pragma once
#include <functional>
#include <map>
#include <set>
#include <string>

#include "Kiv/Ptr.h"
#include "Veltro/InotifyMgr.h"
#include "Veltro/TaskSchedulerCpp.h"

namespace Indexer {

/// Tells which names in a tree have changed. Each directory has a watch of its own: inotify knows
/// no trees. Events only note the name; this task tells the names in runs of its own, each name
/// once however many events it had, so that a storm of changes is done in slices, and questions
/// are answered between them.
///
/// What a change is, is not said but for one bit: look at the name and see what is there now. So
/// the order of events, and what else has happened since, do not matter.
///
/// Not seen: writing to a file that stays open, before it is closed; a file changed by another name
/// of it outside the tree; whatever happens in a directory that could not be watched.
class TreeWatch final : public Veltro::Task {
 public:
  class Observer {
   public:
    /// `path` was made, written, moved or deleted. `anew`: what was known of it and all below it
    /// is void: it is or was a directory, or is no more what it was.
    virtual void changed(std::string const& path, bool anew) = 0;
    /// Events were lost, and nothing is watched any more: walk the tree again.
    virtual void overflowed() = 0;
    /// This directory cannot be watched; `errnum` ENOSPC: no watches are left.
    virtual void unwatchable(std::string const& path, int errnum) = 0;

   protected:
    ~Observer() = default;
  };

  /// Of `root` itself, too, it is told when it is moved or removed. Borrows the observer.
  TreeWatch(std::shared_ptr<Veltro::TaskScheduler> scheduler, std::string root, Observer& observer);
  ~TreeWatch() override;

  /// Watches one directory. Add it before reading it: then nothing falls between.
  void add(std::string const& path);
  /// Ends the watches of `path` and of all below it.
  void forget(std::string const& path);
  void close();

  /// Nothing is left to tell.
  bool idle() const { return !overflowed_ && pending_.empty(); }
  std::size_t watched() const { return directories_.size(); }
  std::size_t unwatched() const { return unwatched_.size(); }

 private:
  class Directory;
  void taskExecute() override;
  void _event(Directory& directory, std::string const& name, Veltro::U32 mask);

  std::string const root_;
  Observer& observer_;
  std::map<std::string, Kiv::Ptr<Directory>> directories_;
  std::set<std::string> unwatched_;
  std::map<std::string, bool> pending_;  // by path, whether to look at it anew
  bool overflowed_ = false;
};

}  // namespace Indexer
