#include "Agent.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <system_error>

namespace Indexer {
namespace {

// More than this on its way to the worker, and the walk rests.
constexpr std::size_t kEnoughWaiting = 1000;

std::string defaultSocketPath() {
  char const* const temporary = std::getenv("TMPDIR");
  return std::string(temporary != nullptr ? temporary : "/tmp") + "/indexer-" +
         std::to_string(::getpid()) + ".sock";
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

Agent::Agent(Options const& options)
    : options_(options),
      started_(std::chrono::steady_clock::now()),
      root_(Veltro::schedulerRootVeltro()) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  channel_ = Channel::make(
      root_, Veltro::TaskPriority::normal, "results", ends[0],
      [this](std::string const& message) { _result(message); },
      [this] {
        if (!ended_) _end(true);  // the worker is gone, which it never is by itself
      });
  hasher_ = std::make_unique<HasherThread>(ends[1]);
  walk_ = std::make_shared<Walk>(root_, options_.directory,
                                 [this](DirectoryWalk::Step const& step) { return _step(step); });
  progress_ = std::make_shared<Progress>(root_, [this] {
    return Progress::Figures{index_.files() + failed_, found_, index_.bytes()};
  });
  signals_ = Signals::make(root_, [this](int) { _end(!done_); });
  _listen();
}

Agent::~Agent() {
  channel_->close();
  hasher_.reset();
}

int Agent::run() {
  walk_->scheduleTask();
  progress_->start();
  Veltro::Platform::doEventLoop();
  return _summary();
}

void Agent::_listen() {
  std::string const path = options_.socketPath.empty() ? defaultSocketPath() : options_.socketPath;
  try {
    server_ = QueryServer::make(root_, path,
                                [this](std::string const& question) { return _answer(question); });
    std::fprintf(stderr, "answering at %s\n", path.c_str());
  } catch (std::system_error const& error) {
    std::fprintf(stderr, "indexer: no queries, cannot listen at %s\n", error.what());
  }
}

bool Agent::_step(DirectoryWalk::Step const& step) {
  using Step = DirectoryWalk::Step;
  if (step.kind == Step::file) _submit(step.path);
  if (step.kind == Step::failed) _failed(step.path, step.errnum);
  if (step.kind == Step::end) {
    walked_ = true;
    _checkDone();
  }
  return outstanding_.size() < kEnoughWaiting;
}

void Agent::_submit(std::string const& path) {
  if (!outstanding_.insert(path).second) return;
  ++found_;
  channel_->send(path);
}

void Agent::_result(std::string const& message) {
  FileResult const result = FileResult::fromMessage(message);
  outstanding_.erase(result.path);
  if (result.errnum == 0) {
    index_.add(result);
  } else {
    _failed(result.path, result.errnum);
  }
  if (!walked_ && outstanding_.size() < kEnoughWaiting / 2) walk_->scheduleTask();
  _checkDone();
}

void Agent::_failed(std::string const& path, int errnum) {
  ++failed_;
  std::fprintf(stderr, "indexer: cannot read %s: %s\n", path.c_str(), std::strerror(errnum));
}

void Agent::_checkDone() {
  if (done_ || ended_ || !walked_ || !outstanding_.empty()) return;
  done_ = true;
  progress_->finish();
  if (!options_.stay) _end(false);
}

std::string Agent::_answer(std::string const& question) {
  std::istringstream words(question);
  std::string word;
  words >> word;
  if (word == "stat") return _stat();
  if (word == "find") return _find(words >> word ? word : "");
  if (word == "report" || word == "history") return _report(question);
  if (word == "quit") {
    _end(!done_);
    return "bye\n";
  }
  return "error: unknown question '" + word +
         "'; known: stat, find HASH, report, history N, quit\n";
}

std::string Agent::_stat() const {
  std::ostringstream text;
  text << "files " << index_.files() << "\nbytes " << index_.bytes() << "\nunreadable " << failed_
       << "\nwaiting " << outstanding_.size() << "\nseconds " << std::fixed << std::setprecision(3)
       << secondsSince(started_) << "\nstate " << (done_ ? "done" : "working") << "\n";
  return text.str();
}

std::string Agent::_find(std::string const& hash) const {
  char* end = nullptr;
  errno = 0;
  std::uint64_t const number = std::strtoull(hash.c_str(), &end, 16);
  if (hash.empty() || *end != '\0' || errno != 0 || !std::isxdigit(hash[0])) {
    return "error: find needs a hash, up to 16 hexadecimal digits\n";
  }
  std::string text;
  for (auto const& path : index_.find(number)) text += path + "\n";
  return text.empty() ? "none\n" : text;
}

std::string Agent::_report(std::string const& question) const {
  std::istringstream words(question);
  std::string word;
  unsigned events = 0;
  words >> word;
  std::ostringstream text;
  if (word == "report") {
    root_->printStats(text, true, false, 50, 50, 0);
  } else if (words >> events) {
    root_->printHistory(text, events);
  } else {
    text << "error: history needs a number of events\n";
  }
  return text.str();
}

void Agent::_end(bool early) {
  if (ended_) return;
  ended_ = true;
  early_ = early;
  if (!done_) progress_->finish();
  walk_->unscheduleTask();
  channel_->close();
  signals_->close();
  if (server_ != nullptr) server_->close();
}

int Agent::_summary() const {
  std::printf("%zu files, %llu bytes, %.3f seconds, %zu unreadable%s\n", index_.files(),
              static_cast<unsigned long long>(index_.bytes()), secondsSince(started_), failed_,
              early_ ? ", ended early" : "");
  if (early_) return 3;
  return failed_ > 0 ? 1 : 0;
}

}  // namespace Indexer
