#pragma once
#include <map>
#include <memory>
#include <set>
#include <string>

#include "Channel.h"
#include "HashPlugin.h"
#include "Hasher.h"
#include "Index.h"
#include "TreeWatch.h"
#include "Walk.h"

namespace Indexer {

/// The index of a directory tree, and all that brings it up to date and keeps it there:
///
///   Walk (low, the tree)          --path--> Channel ==socket pair==> HasherThread
///   Walk (normal, what appeared)  --path-->    |
///   TreeWatch (normal)            --name-->    |
///   Index <-------------result--------------- Channel <==socket pair==
///
/// A file whose name changes while the worker has it is looked at again when the answer comes,
/// and the answer is thrown away: the index never keeps what a file held before its last event.
///
/// After a lost event the tree is walked again, and what the walk did not find is looked at.
class TreeIndex final : private TreeWatch::Observer {
 public:
  /// Is told of what happens; the process's own counting and talking. Called from the loop.
  class Observer {
   public:
    virtual void indexed(FileResult const& result) = 0;
    /// A file or directory could not be read.
    virtual void unreadable(std::string const& path, int errnum) = 0;
    virtual void unwatchable(std::string const& path, int errnum) = 0;
    virtual void overflowed() = 0;
    /// Everything found is in the index; told again after each flurry of changes.
    virtual void settled() = 0;
    /// The worker is gone, which it never is by itself.
    virtual void workerLost() = 0;

   protected:
    ~Observer() = default;
  };

  /// Starts the worker thread. `follow`: watch the tree, too. Borrows the hash and the observer.
  TreeIndex(std::shared_ptr<Veltro::TaskScheduler> const& scheduler, std::string directory,
            bool follow, HashPlugin const& hash, Observer& observer);
  ~TreeIndex();

  void start();
  /// Ends all work; what is indexed stays readable.
  void close();

  Index const& index() const { return index_; }
  bool settled() const;
  /// On their way to the worker and back.
  std::size_t waiting() const { return outstanding_.size(); }
  std::size_t unreadable() const { return unreadable_.size(); }
  std::size_t watched() const { return watch_ ? watch_->watched() : 0; }
  std::size_t unwatched() const { return watch_ ? watch_->unwatched() : 0; }

 private:
  void changed(std::string const& path, bool anew) override;
  void overflowed() override;
  void unwatchable(std::string const& path, int errnum) override;
  bool _step(DirectoryWalk::Step const& step);
  void _walked();
  void _look(std::string const& path, bool anew);
  void _submit(std::string const& path);
  void _remove(std::string const& path);
  void _result(std::string const& message);
  void _failed(std::string const& path, int errnum);
  void _checkSettled();

  std::string const directory_;
  Observer& observer_;
  Index index_;
  std::map<std::string, bool> outstanding_;  // with the worker; whether it has changed since
  std::set<std::string> unreadable_;
  std::set<std::string> unconfirmed_;  // after lost events: indexed, but not met again so far

  std::shared_ptr<Channel> channel_;
  std::unique_ptr<HasherThread> hasher_;
  std::shared_ptr<Walk> walk_;
  std::shared_ptr<Walk> appeared_;
  std::shared_ptr<TreeWatch> watch_;  // null when the tree is not followed
};

}  // namespace Indexer
