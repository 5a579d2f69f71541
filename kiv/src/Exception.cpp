#include "Kiv/Exception.h"

#include <cstring>
#include <utility>

namespace Kiv {
namespace {

// Not strerror: it speaks the user's language and shares a buffer between threads.
char const* systemText(int errnum) {
  char const* const text = ::strerrordesc_np(errnum);
  return text == nullptr ? "Unknown error" : text;
}

}  // namespace

Exception::Exception(std::string message) : message_(std::move(message)) {}
Exception::~Exception() = default;
char const* Exception::what() const noexcept { return message_.c_str(); }

RangeException::~RangeException() = default;

ErrnoException::ErrnoException(std::string const& message, int errnum)
    : Exception(message + ": " + systemText(errnum) + " (" + std::to_string(errnum) + ")"),
      errnum_(errnum) {}
ErrnoException::~ErrnoException() = default;

}  // namespace Kiv
