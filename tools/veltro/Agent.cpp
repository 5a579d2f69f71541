#include "Agent.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
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

class File final {
 public:
  File(std::string const& path, int flags)
      : path_(path), fd_(::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW)) {
    if (fd_ < 0) fail(path);
  }
  ~File() { ::close(fd_); }
  File(File const&) = delete;
  int fd() const { return fd_; }
  /// As many as there are.
  std::size_t read(void* to, std::size_t bytes, off_t from) const {
    ssize_t const count = ::pread(fd_, to, bytes, from);
    if (count < 0) fail(path_);
    return static_cast<std::size_t>(count);
  }

 private:
  std::string const path_;
  int const fd_;
};

Format::Header headerOf(File const& file, std::string const& path) {
  Format::Header header{};
  if (file.read(&header, sizeof header, 0) < sizeof header ||
      std::memcmp(header.magic, Format::kMagic, sizeof header.magic) != 0) {
    throw std::runtime_error(path + " holds no records");
  }
  if (header.version != Format::kVersion) {
    throw std::runtime_error(path + " is of version " + std::to_string(header.version) +
                             ", this program reads " + std::to_string(Format::kVersion));
  }
  return header;
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
std::vector<char> answerTo(U64 number, File const& records, std::string const& path) {
  Format::Header const before = headerOf(records, path);
  if (before.answered != number || before.sequence % 2 != 0) return {};
  if (before.bodyBytes > kLargestAnswer) throw std::runtime_error(path + " is damaged");
  std::vector<char> bytes(sizeof before + static_cast<std::size_t>(before.bodyBytes));
  if (records.read(bytes.data(), bytes.size(), 0) < bytes.size()) return {};
  Format::Header const after = headerOf(records, path);
  bool const whole =
      before.sequence == after.sequence && std::memcmp(bytes.data(), &before, sizeof before) == 0;
  return whole ? bytes : std::vector<char>();
}

}  // namespace

Reply::Reply(std::vector<char> bytes) : bytes_(std::move(bytes)) {
  std::memcpy(&header_, bytes_.data(), sizeof header_);
  std::size_t at = header_.headerBytes;
  for (Veltro::U32 i = 0; i < header_.sectionCount; ++i, at += sizeof(Section)) {
    Section section{};
    bool fits = at + sizeof section <= bytes_.size();
    if (fits) std::memcpy(&section, bytes_.data() + at, sizeof section);
    fits = fits && U64{section.offset} + U64{section.count} * section.recordBytes <= bytes_.size();
    if (!fits) throw std::runtime_error("the agent's answer is damaged");
    sections_.push_back(section);
  }
}

Reply::Section Reply::_section(Kind kind) const {
  for (Section const& section : sections_) {
    if (section.kind == static_cast<Veltro::U32>(kind)) return section;
  }
  return {};
}

void Reply::_copy(Kind kind, std::size_t index, void* record, std::size_t bytes) const {
  Section const section = _section(kind);
  std::memcpy(record, bytes_.data() + section.offset + index * section.recordBytes,
              std::min<std::size_t>(bytes, section.recordBytes));
}

std::string Reply::string(Veltro::U32 offset) const {
  Section const strings = _section(Kind::strings);
  if (offset >= strings.count) return "?";
  char const* const text = bytes_.data() + strings.offset + offset;
  return std::string(text, ::strnlen(text, strings.count - offset));
}

std::string Reply::error() const {
  Section const section = _section(Kind::error);
  return std::string(bytes_.data() + section.offset, section.count);
}

Agent::Agent(std::string path) : path_(std::move(path)) {
  header_ = headerOf(File(path_ + ".records", O_RDONLY), path_ + ".records");
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
    auto bytes = answerTo(number, records, path_ + ".records");
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
  if (error && error != std::errc::no_such_file_or_directory) {
    throw std::system_error(error, where);
  }
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
    } catch (std::system_error const& gone) {
      if (gone.code() != std::errc::no_such_file_or_directory) throw;
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
    throw NoAgent(agent.empty() ? "no agent lets itself be seen (VELTRO_INTROSPECT=1 makes one)"
                                : "there is no agent '" + agent + "'");
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
