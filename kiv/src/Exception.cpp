#include "Kiv/Exception.h"

#include <cstring>
#include <utility>

namespace Kiv {

Exception::Exception(std::string message) : message_(std::move(message)) {}
Exception::~Exception() = default;
char const* Exception::what() const noexcept { return message_.c_str(); }

RangeException::~RangeException() = default;

ErrnoException::ErrnoException(std::string const& message, int errnum)
    : Exception(message + ": " + ::strerrordesc_np(errnum) + " (" + std::to_string(errnum) + ")"),
      errnum_(errnum) {}
ErrnoException::~ErrnoException() = default;

}  // namespace Kiv
