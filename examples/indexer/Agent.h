#pragma once
#include <chrono>
#include <memory>
#include <string>

#include "AgentCounters.h"
#include "Options.h"
#include "Progress.h"
#include "QueryServer.h"
#include "Signals.h"
#include "TreeIndex.h"

namespace Indexer {

/// The agent on the main thread, and how its parts meet: TreeIndex does the work and tells this
/// class, which counts and says what happens. Beside it Progress (normal), QueryServer and Signals
/// (high). When the index is done, and it was not asked to stay, all parts are closed and the loop
/// runs dry.
class Agent final : private TreeIndex::Observer {
 public:
  explicit Agent(Options const& options);
  ~Agent();

  /// Runs to the end; the process's exit status.
  int run();

 private:
  void indexed(FileResult const& result) override;
  void unreadable(std::string const& path, int errnum) override;
  void unwatchable(std::string const& path, int errnum) override;
  void overflowed() override;
  void settled() override;
  void workerLost() override { _end(true); }

  void _listen();
  std::string _answer(std::string const& question);
  std::string _stat() const;
  std::string _find(std::string const& hash) const;
  std::string _file(std::string const& path) const;
  std::string _report(std::string const& question) const;
  void _end(bool early);
  int _summary() const;

  Options const options_;
  std::chrono::steady_clock::time_point const started_;
  std::shared_ptr<Veltro::TaskSchedulerRoot> const root_;
  AgentCounters counters_;

  bool done_ = false;  // the index was complete once
  bool ended_ = false;
  bool early_ = false;

  TreeIndex tree_;
  std::shared_ptr<Progress> progress_;
  std::shared_ptr<Signals> signals_;
  std::shared_ptr<QueryServer> server_;
};

}  // namespace Indexer
