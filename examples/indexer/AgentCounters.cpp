#include "AgentCounters.h"

#include <iterator>
#include <vector>

namespace Indexer {
namespace {

constexpr CounterBlocks::Key kKeys[] = {
    {"files", "files", "Files hashed since the start."},
    {"bytes", "bytes", "Bytes hashed since the start."},
    {"queries", "questions", "Questions answered since the start."},
    {"errors", "", "Names that could not be read or watched."},
};

}  // namespace

AgentCounters::AgentCounters(std::string const& name)
    : files_(&unpublished_.files),
      bytes_(&unpublished_.bytes),
      queries_(&unpublished_.queries),
      errors_(&unpublished_.errors) {
  if (name.empty()) return;
  facade_.emplace(name.c_str());
  // A null fallback asks whether the plugin is there: with it, a file of our own would only show
  // zeros beside the counters that count.
  if (facade_->counter("files", nullptr) != nullptr) {
    place_ = "PulseCountersPlugin, counter set " + name;
  } else {
    blocks_.emplace(name, std::vector<CounterBlocks::Key>(std::begin(kKeys), std::end(kKeys)));
    place_ = blocks_->logPath();
  }
  files_ = _counter("files");
  bytes_ = _counter("bytes");
  queries_ = _counter("queries");
  errors_ = _counter("errors");
}

Veltro::BlockCounter AgentCounters::_counter(char const* key) {
  return Veltro::BlockCounter(facade_->counter(key, blocks_ ? blocks_->counter(key) : nullptr));
}

}  // namespace Indexer
