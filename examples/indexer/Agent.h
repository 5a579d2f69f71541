#pragma once
#include <chrono>
#include <memory>
#include <set>
#include <string>

#include "Channel.h"
#include "Hasher.h"
#include "Index.h"
#include "Options.h"
#include "Progress.h"
#include "QueryServer.h"
#include "Signals.h"
#include "Walk.h"

namespace Indexer {

/// The agent on the main thread, and how its parts meet:
///
///   Walk (low) --path--> Channel ==socket pair==> HasherThread
///   Index <--result--- Channel <==socket pair==
///
/// beside them Progress (normal), QueryServer and Signals (high). When the walk has ended and
/// every path is answered the index is done; all parts are closed and the loop runs dry.
class Agent final {
 public:
  explicit Agent(Options const& options);
  ~Agent();

  /// Runs to the end; the process's exit status.
  int run();

 private:
  bool _step(DirectoryWalk::Step const& step);
  void _submit(std::string const& path);
  void _result(std::string const& message);
  void _failed(std::string const& path, int errnum);
  void _checkDone();
  void _listen();
  std::string _answer(std::string const& question);
  std::string _stat() const;
  std::string _find(std::string const& hash) const;
  std::string _report(std::string const& question) const;
  void _end(bool early);
  int _summary() const;

  Options const options_;
  std::chrono::steady_clock::time_point const started_;
  std::shared_ptr<Veltro::TaskSchedulerRoot> const root_;

  Index index_;
  std::set<std::string> outstanding_;  // sent to the worker, not yet answered
  std::size_t found_ = 0;
  std::size_t failed_ = 0;
  bool walked_ = false;
  bool done_ = false;
  bool ended_ = false;
  bool early_ = false;

  std::shared_ptr<Channel> channel_;
  std::unique_ptr<HasherThread> hasher_;
  std::shared_ptr<Walk> walk_;
  std::shared_ptr<Progress> progress_;
  std::shared_ptr<Signals> signals_;
  std::shared_ptr<QueryServer> server_;
};

}  // namespace Indexer
