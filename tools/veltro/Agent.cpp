#include "Agent.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <system_error>
#include <thread>

#include "Veltro/Introspection.h"

namespace Operator {
namespace {

namespace Format = Veltro::IntrospectionFormat;
using Clock = std::chrono::steady_clock;
using Veltro::U64;

constexpr U64 kLargestAnswer = 1 << 30;

[[noreturn]] void fail(std::string const& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

/// A regular file, and no other: a pipe would let its reader wait for ever.
class File final {
 public:
  File(std::string const& path, int flags)
      : path_(path), fd_(::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)) {
    struct stat status {};
    if (fd_ < 0 || ::fstat(fd_, &status) != 0) fail(path);
    if (S_ISREG(status.st_mode)) return;
    ::close(fd_);
    throw std::runtime_error(path + " is not a regular file");
  }
  ~File() { ::close(fd_); }
  File(File const&) = delete;
  int fd() const { return fd_; }
  std::string const& path() const { return path_; }
  /// The first `bytes`, or as many as there are.
  std::vector<char> head(std::size_t bytes) const {
    std::vector<char> read(bytes);
    ssize_t const count = ::pread(fd_, read.data(), bytes, 0);
    if (count < 0) fail(path_);
    read.resize(static_cast<std::size_t>(count));
    return read;
  }

 private:
  std::string const path_;
  int const fd_;
};

Format::Header headerNow(File const& file) {
  return headerOf(file.head(sizeof(Format::Header)), file.path());
}

/// Field 22 of the kernel's line on the process; 0 when there is no such process.
U64 processStart(Veltro::U32 process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string line;
  if (!std::getline(file, line) || line.rfind(')') == std::string::npos) return 0;
  std::istringstream fields(line.substr(line.rfind(')') + 1));
  std::string field;
  for (int number = 3; number <= 22; ++number) fields >> field;
  return std::strtoull(field.c_str(), nullptr, 10);
}

/// The whole answer to request `number`, between two writes of the agent; nothing when it is not
/// there yet.
std::vector<char> answerTo(U64 number, File const& records) {
  Format::Header const before = headerNow(records);
  if (before.answered != number || before.sequence % 2 != 0) return {};
  if (before.bodyBytes > kLargestAnswer) throw std::runtime_error(records.path() + " is damaged");
  std::size_t const size = sizeof before + static_cast<std::size_t>(before.bodyBytes);
  auto bytes = records.head(size);
  bool const whole = bytes.size() == size &&
                     headerOf(bytes, records.path()).sequence == before.sequence &&
                     headerNow(records).sequence == before.sequence;
  return whole ? bytes : std::vector<char>();
}

/// Anybody may make the default directory of anybody else.
void mustBeOurs(std::string const& directory) {
  struct stat status {};
  if (::lstat(directory.c_str(), &status) != 0) fail(directory);
  if (status.st_uid != ::geteuid()) throw std::runtime_error(directory + " is another user's");
}

}  // namespace

Agent::Agent(std::string path) : path_(std::move(path)) {
  header_ = headerNow(File(path_ + ".records", O_RDONLY));
}

bool Agent::alive() const {
  return header_.processStart != 0 && processStart(header_.processId) == header_.processStart;
}

void Agent::sweep() const {
  ::unlink((path_ + ".control").c_str());
  ::unlink((path_ + ".records").c_str());
}

Reply Agent::ask(std::string const& request, double timeout) const {
  auto const start = Clock::now();
  auto waitOn = [&, pause = std::chrono::microseconds(50)]() mutable {
    if (!alive()) throw NoAgent(name() + " has ended");
    if (std::chrono::duration<double>(Clock::now() - start).count() > timeout) {
      throw NoAgent(name() + " does not answer: it is stopped, or busy in one task");
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, std::chrono::microseconds(5000));
  };
  File const turn(path_ + ".control", O_RDONLY);
  while (::flock(turn.fd(), LOCK_EX | LOCK_NB) != 0) waitOn();
  File const records(path_ + ".records", O_RDONLY);
  // Unlike that of any request before, also of one that nobody waits for any more.
  auto const number = static_cast<U64>(start.time_since_epoch() / std::chrono::nanoseconds(1));
  {
    File const control(path_ + ".control", O_WRONLY | O_TRUNC);
    std::string const line = std::to_string(number) + " " + request + "\n";
    if (::write(control.fd(), line.data(), line.size()) < 0) fail(path_ + ".control");
  }
  for (;;) {
    auto bytes = answerTo(number, records);
    if (!bytes.empty()) {
      Reply reply(std::move(bytes));
      if (!reply.error().empty()) throw std::runtime_error(name() + ": " + reply.error());
      return reply;
    }
    waitOn();
  }
}

void AgentChoice::addTo(CLI::App& command) {
  command.add_option("AGENT", agent,
                     "Which: its program, process or thread number, or whole name; not needed "
                     "when there is only one");
  command.add_option("--dir", directory, "Where agents let themselves be seen")
      ->type_name("DIRECTORY")
      ->envname("VELTRO_INTROSPECT");
  command.add_option("--timeout", timeout, "How long to wait for an answer")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 3600.0));
}

std::vector<Agent> AgentChoice::all() const {
  bool const named = !directory.empty() && directory.front() == '/';
  std::string const where = named ? directory : Veltro::Introspection::defaultDirectory();
  std::error_code error;
  std::vector<std::string> paths;
  for (auto const& entry : std::filesystem::directory_iterator(where, error)) {
    if (entry.path().extension() == ".control") {
      paths.push_back((entry.path().parent_path() / entry.path().stem()).string());
    }
  }
  if (error == std::errc::no_such_file_or_directory) return {};
  if (error) throw std::system_error(error, where);
  if (!named) mustBeOurs(where);
  std::sort(paths.begin(), paths.end());
  std::vector<Agent> agents;
  for (std::string const& path : paths) {
    try {
      Agent const found(path);
      if (found.alive()) {
        agents.push_back(found);
      } else {
        found.sweep();
      }
    } catch (std::exception const& fault) {
      auto const* const system = dynamic_cast<std::system_error const*>(&fault);
      bool const ended =
          system != nullptr && system->code() == std::errc::no_such_file_or_directory;
      if (!ended) std::cerr << "veltro: " << fault.what() << '\n';
    }
  }
  return agents;
}

Agent AgentChoice::chosen() const {
  std::vector<Agent> found;
  for (Agent const& candidate : all()) {
    auto const& header = candidate.header();
    std::string const process = std::to_string(header.processId);
    std::string const thread = std::to_string(header.threadId);
    bool const meant = agent.empty() || agent == header.program || agent == process ||
                       agent == thread || agent == process + "." + thread ||
                       agent == candidate.name();
    if (meant) found.push_back(candidate);
  }
  if (found.empty()) {
    throw NoAgent(
        (agent.empty() ? "no agent lets itself be seen" : "there is no agent '" + agent + "'") +
        " (it is seen when it has tasks and was started with VELTRO_INTROSPECT=1)");
  }
  // Threads of one process: its name means the main one.
  bool const oneProcess = std::all_of(found.begin(), found.end(), [&](Agent const& a) {
    return a.header().processId == found[0].header().processId;
  });
  for (Agent const& candidate : found) {
    if (found.size() == 1 || (oneProcess && candidate.isMainThread() &&
                              std::count(agent.begin(), agent.end(), '.') == 0)) {
      return candidate;
    }
  }
  std::string names;
  for (Agent const& candidate : found) names += " " + candidate.name();
  throw NoAgent("which of these?" + names);
}

}  // namespace Operator
