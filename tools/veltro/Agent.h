#pragma once
#include <memory>
#include <string>
#include <vector>

#include "Command.h"
#include "Veltro/IntrospectionFormat.h"

namespace Operator {

/// An agent's answer, whole. Records are copied out by kind; a newer agent's longer ones are cut,
/// an older one's shorter ones end in zeros.
class Reply final {
 public:
  using Kind = Veltro::IntrospectionFormat::Kind;

  /// Throws std::runtime_error where offsets and sizes do not fit together.
  explicit Reply(std::vector<char> bytes);

  Veltro::IntrospectionFormat::Header const& header() const { return header_; }
  template <typename Record>
  std::vector<Record> records(Kind kind) const {
    std::vector<Record> records;
    for (std::size_t i = 0; i < _count(kind); ++i) {
      records.emplace_back();
      _copy(kind, i, &records.back(), sizeof(Record));
    }
    return records;
  }
  std::string string(Veltro::U32 offset) const;
  /// Why there is nothing else; "" when there is.
  std::string error() const;

 private:
  using Section = Veltro::IntrospectionFormat::Section;
  Section _section(Kind kind) const;
  std::size_t _count(Kind kind) const { return _section(kind).count; }
  void _copy(Kind kind, std::size_t index, void* record, std::size_t bytes) const;

  std::vector<char> const bytes_;
  Veltro::IntrospectionFormat::Header header_;
  std::vector<Section> sections_;
};

/// A thread of an agent that lets itself be seen.
class Agent final {
 public:
  explicit Agent(std::string path);

  std::string const& path() const { return path_; }
  /// PROGRAM.PROCESS.THREAD
  std::string name() const { return path_.substr(path_.rfind('/') + 1); }
  Veltro::IntrospectionFormat::Header const& header() const { return header_; }
  /// Its process is the one that made the files.
  bool alive() const;
  bool isMainThread() const { return header_.processId == header_.threadId; }
  /// Removes the files of an agent that was killed.
  void sweep() const;

  /// Asks and waits; readers take turns. Throws NoAgent when no answer comes in time, and
  /// std::runtime_error with the agent's own words when it has none.
  Reply ask(std::string const& request, double timeout) const;

 private:
  std::string path_;
  Veltro::IntrospectionFormat::Header header_;
};

/// Which agent, for every subcommand that asks one.
struct AgentChoice {
  std::string agent;
  std::string directory;
  double timeout = 5;

  void addTo(CLI::App& command);
  /// All that live, in the order of their names.
  std::vector<Agent> all() const;
  /// The one that is meant; throws NoAgent when there is none, or more than one.
  Agent chosen() const;
  Reply ask(std::string const& request) const { return chosen().ask(request, timeout); }
};

}  // namespace Operator
