#include "TreeIndex.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "PathRange.h"

namespace Indexer {
namespace {

// More than this on its way to the worker, and the walks rest.
constexpr std::size_t kEnoughWaiting = 1000;

// The name has become another thing, or nothing, since it was found: no failure.
bool gone(int errnum) { return errnum == ENOENT || errnum == ENOTDIR || errnum == ELOOP; }

}  // namespace

TreeIndex::TreeIndex(std::shared_ptr<Veltro::TaskScheduler> const& scheduler, std::string directory,
                     bool follow, HashPlugin const& hash, Observer& observer)
    : directory_(std::move(directory)), observer_(observer) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  channel_ = Channel::make(
      scheduler, Veltro::TaskPriority::normal, "results", ends[0],
      [this](std::string const& message) { _result(message); }, [this] { observer_.workerLost(); });
  hasher_ = std::make_unique<HasherThread>(ends[1], hash);
  auto const onStep = [this](DirectoryWalk::Step const& step) { return _step(step); };
  walk_ = std::make_shared<Walk>(scheduler, Veltro::TaskPriority::low, "walk", onStep);
  appeared_ = std::make_shared<Walk>(scheduler, Veltro::TaskPriority::normal, "appeared", onStep);
  if (follow) {
    watch_ = std::make_shared<TreeWatch>(scheduler, directory_,
                                         static_cast<TreeWatch::Observer&>(*this));
  }
}

TreeIndex::~TreeIndex() { close(); }

void TreeIndex::start() { walk_->add(directory_); }

void TreeIndex::close() {
  walk_->unscheduleTask();
  appeared_->unscheduleTask();
  if (watch_) watch_->close();
  channel_->close();  // which ends the worker
  hasher_.reset();
}

bool TreeIndex::settled() const {
  return walk_->idle() && appeared_->idle() && outstanding_.empty() && (!watch_ || watch_->idle());
}

void TreeIndex::_checkSettled() {
  if (settled()) observer_.settled();
}

bool TreeIndex::_step(DirectoryWalk::Step const& step) {
  using Step = DirectoryWalk::Step;
  if (step.kind == Step::file) {
    unconfirmed_.erase(step.path);
    _submit(step.path);
  }
  if (step.kind == Step::directory && watch_) watch_->add(step.path);
  if (step.kind == Step::failed) {
    bool const vanished = gone(step.errnum) && step.path != directory_;
    if (!vanished) _failed(step.path, step.errnum);
  }
  if (step.kind == Step::end) _walked();
  return outstanding_.size() < kEnoughWaiting;
}

void TreeIndex::_walked() {
  if (walk_->idle()) {
    for (auto const& path : std::exchange(unconfirmed_, {})) _look(path, false);
  }
  _checkSettled();
}

void TreeIndex::changed(std::string const& path, bool anew) {
  _look(path, anew);
  _checkSettled();
}

void TreeIndex::overflowed() {
  observer_.overflowed();
  unconfirmed_ = index_.paths();
  walk_->add(directory_);
}

void TreeIndex::unwatchable(std::string const& path, int errnum) {
  observer_.unwatchable(path, errnum);
}

// Brings what is known of a name in line with what is there now.
void TreeIndex::_look(std::string const& path, bool anew) {
  if (anew && watch_) watch_->forget(path);
  struct stat status;
  // The root may be given as a link; below it none is followed.
  int const result =
      path == directory_ ? ::stat(path.c_str(), &status) : ::lstat(path.c_str(), &status);
  bool const file = result == 0 && S_ISREG(status.st_mode);
  if (anew || !file) _remove(path);
  if (file) _submit(path);
  if (result == 0 && S_ISDIR(status.st_mode)) appeared_->add(path);
}

void TreeIndex::_submit(std::string const& path) {
  auto const [entry, added] = outstanding_.emplace(path, false);
  if (added) {
    channel_->send(path);
  } else {
    entry->second = true;
  }
}

void TreeIndex::_remove(std::string const& path) {
  index_.remove(path);
  eraseTree(unreadable_, path);
  if (auto const known = outstanding_.find(path); known != outstanding_.end()) known->second = true;
  for (auto [entry, end] = rangeBelow(outstanding_, path); entry != end; ++entry) {
    entry->second = true;
  }
}

void TreeIndex::_result(std::string const& message) {
  FileResult const result = FileResult::fromMessage(message);
  auto const entry = outstanding_.extract(result.path);
  bool const changedSince = !entry.empty() && entry.mapped();
  if (changedSince) {
    _look(result.path, false);
  } else if (result.errnum == 0) {
    unreadable_.erase(result.path);
    index_.add(result);
    observer_.indexed(result);
  } else if (gone(result.errnum)) {
    _remove(result.path);
  } else {
    _failed(result.path, result.errnum);
  }
  if (outstanding_.size() < kEnoughWaiting / 2) {
    if (!walk_->idle()) walk_->scheduleTask();
    if (!appeared_->idle()) appeared_->scheduleTask();
  }
  _checkSettled();
}

void TreeIndex::_failed(std::string const& path, int errnum) {
  _remove(path);  // and what the worker may have opened before it was moved away
  unreadable_.insert(path);
  observer_.unreadable(path, errnum);
}

}  // namespace Indexer
