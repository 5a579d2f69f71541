#pragma once
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Veltro {

/// The lines that `body` makes this process write to standard error.
inline std::vector<std::string> standardError(std::function<void()> const& body) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const file(std::tmpfile(), &std::fclose);
  struct Redirected {
    explicit Redirected(int fd) : kept(::dup(STDERR_FILENO)) { ::dup2(fd, STDERR_FILENO); }
    ~Redirected() {
      ::dup2(kept, STDERR_FILENO);
      ::close(kept);
    }
    int kept;
  };
  {
    Redirected const redirected(::fileno(file.get()));
    body();
  }
  std::rewind(file.get());
  std::vector<std::string> lines;
  char line[4096];
  while (std::fgets(line, sizeof line, file.get()) != nullptr) {
    lines.emplace_back(line);
    if (lines.back().back() == '\n') lines.back().pop_back();
  }
  return lines;
}

}  // namespace Veltro
