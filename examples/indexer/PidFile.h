#pragma once
#include <string>

namespace Indexer {

/// Sees to it that one process at a time works under a name: holds a lock on a file, which also
/// says who holds it. The lock goes with the process, however that ends; the file stays.
class PidFile final {
 public:
  /// Takes the lock and writes the process's number. std::runtime_error when another process
  /// holds it, std::system_error when there can be no such file; both with a line for the user.
  explicit PidFile(std::string const& path);
  ~PidFile();
  PidFile(PidFile const&) = delete;
  PidFile& operator=(PidFile const&) = delete;

 private:
  int const fd_;
};

}  // namespace Indexer
