#include "Agent.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <system_error>

#include "Debug.h"
#include "Veltro/UtilCpp.h"

namespace Indexer {
namespace {

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
      root_(Veltro::schedulerRootVeltro()),
      counters_(options.counters),
      tree_(root_, options.directory, options.stay, loadHash(options.hash), *this) {
  progress_ = std::make_shared<Progress>(root_, [this] {
    std::size_t const done = tree_.index().files() + tree_.unreadable();
    return Progress::Figures{done, done + tree_.waiting(), tree_.index().bytes()};
  });
  signals_ = Signals::make(root_, [this](int) { _end(!done_); });
  if (!counters_.place().empty()) {
    std::fprintf(stderr, "counting in %s\n", counters_.place().c_str());
  }
  _listen();
}

Agent::~Agent() = default;

int Agent::run() {
  tree_.start();
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

void Agent::indexed(FileResult const& result) {
  counters_.files().inc();
  counters_.bytes().inc(result.bytes);
}

void Agent::unreadable(std::string const& path, int errnum) {
  counters_.errors().inc();
  std::fprintf(stderr, "indexer: cannot read %s: %s\n", path.c_str(), std::strerror(errnum));
}

// Thousands of directories may follow the first: they are counted only.
void Agent::unwatchable(std::string const& path, int errnum) {
  counters_.errors().inc();
  if (tree_.unwatched() > 1) return;
  std::string reason = std::strerror(errnum);
  if (errnum == ENOSPC) {
    std::istringstream limit(
        Veltro::Util::fileRead(debug(), "/proc/sys/fs/inotify/max_user_watches", true));
    limit >> reason;
    reason = "no watches left, fs.inotify.max_user_watches is " + reason;
  }
  std::fprintf(stderr,
               "indexer: cannot watch %s: %s; changes in this and other unwatched directories "
               "(see stat) are not followed\n",
               path.c_str(), reason.c_str());
}

void Agent::overflowed() {
  std::fprintf(stderr, "indexer: more changes than the kernel keeps; walking the tree again\n");
}

void Agent::settled() {
  if (done_ || ended_) return;
  done_ = true;
  progress_->finish();
  if (!options_.stay) _end(false);
}

std::string Agent::_answer(std::string const& question) {
  counters_.queries().inc();
  std::istringstream words(question);
  std::string word;
  words >> word;
  if (word == "stat") return _stat();
  if (word == "find") return _find(words >> word ? word : "");
  if (word == "file") {
    std::getline(words >> std::ws, word);  // all of the line: a path may hold blanks
    return _file(word);
  }
  if (word == "report" || word == "history") return _report(question);
  if (word == "quit") {
    _end(!done_);
    return "bye\n";
  }
  return "error: unknown question '" + word +
         "'; known: stat, find HASH, file PATH, report, history N, quit\n";
}

std::string Agent::_stat() const {
  std::ostringstream text;
  text << "files " << tree_.index().files() << "\nbytes " << tree_.index().bytes()
       << "\nunreadable " << tree_.unreadable() << "\nwaiting " << tree_.waiting() << "\nwatched "
       << tree_.watched() << "\nunwatched " << tree_.unwatched() << "\nseconds " << std::fixed
       << std::setprecision(3) << secondsSince(started_) << "\nstate "
       << (tree_.settled() ? "done" : "working") << "\n";
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
  for (auto const& path : tree_.index().find(number)) text += path + "\n";
  return text.empty() ? "none\n" : text;
}

std::string Agent::_file(std::string const& path) const {
  Index::File const* const file = tree_.index().file(path);
  if (file == nullptr) return "none\n";
  std::ostringstream text;
  text << file->bytes << " bytes, hash " << std::hex << std::setw(16) << std::setfill('0')
       << file->hash << "\n";
  return text.str();
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
  tree_.close();
  signals_->close();
  if (server_ != nullptr) server_->close();
}

int Agent::_summary() const {
  std::printf("%zu files, %llu bytes, %.3f seconds, %zu unreadable%s\n", tree_.index().files(),
              static_cast<unsigned long long>(tree_.index().bytes()), secondsSince(started_),
              tree_.unreadable(), early_ ? ", ended early" : "");
  if (early_) return 3;
  return tree_.unreadable() > 0 ? 1 : 0;
}

}  // namespace Indexer
