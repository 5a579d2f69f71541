#include "Veltro/UtilCpp.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Handler.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/UtilCpp";
constexpr unsigned kFileBackedShared = 0x8;

}  // namespace

void Util::includeShmemInCore() {
  std::string const path = "/proc/" + std::to_string(::getpid()) + "/coredump_filter";
  std::FILE* const file = std::fopen(path.c_str(), "r+e");
  if (file == nullptr) {
    VELTRO_TRACE(util::debug(), 1, "Util::includeShmemInCore() unable to open " << path);
    return;
  }
  unsigned filter = 0;
  errno = 0;
  if (std::fscanf(file, "%x", &filter) != 1) {
    int const error = errno;
    std::fclose(file);
    VELTRO_ASSERT(nullptr, false,
                  "Veltro::Util::includeShmemInCore() fscanf failed for file: "
                      << path << " error: " << std::strerror(error));
  }
  // Read as hexadecimal, as the kernel prints it; written as decimal, which it takes as well. The
  // rewind is what the C standard wants between reading and writing.
  std::rewind(file);
  std::fprintf(file, "%d", static_cast<int>(filter | kFileBackedShared));
  if (std::fclose(file) != 0) {  // the write happens here
    int const error = errno;
    VELTRO_TRACE(
        util::debug(), 1,
        "Util::includeShmemInCore() unable to write " << path << ": " << std::strerror(error));
  }
}

}  // namespace Veltro
