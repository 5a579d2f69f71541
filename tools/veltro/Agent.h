#pragma once
#include <memory>
#include <string>
#include <vector>

#include "Command.h"
#include "Reply.h"

namespace Operator {

/// A thread of an agent that lets itself be seen. Throws std::runtime_error where its file holds
/// something else, std::system_error where it cannot be read.
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
  /// All that live, in the order of their names. What is no agent's is told of and passed over.
  std::vector<Agent> all() const;
  /// The one that is meant; throws NoAgent when there is none, or more than one.
  Agent chosen() const;
  Reply ask(std::string const& request) const { return chosen().ask(request, timeout); }
};

}  // namespace Operator
