#include "Veltro/Exception.h"

namespace Veltro {

Exception::Exception(std::string const& message, bool wantBacktrace)
    : backtrace_(wantBacktrace), message_(message) {}
Exception::~Exception() = default;

char const* Exception::name() const { return "Veltro::Exception"; }

char const* Exception::what() const noexcept {
  if (!whatText_.empty()) return whatText_.c_str();
  try {
    whatText_ = std::string(name()) + "(\"" + message_ + "\")\nBacktrace:\n" + backtrace_.pretty();
    return whatText_.c_str();
  } catch (std::exception const&) {  // no memory: what there is, rather than the process's end
    return message_.c_str();
  }
}

MemoryResourceException::MemoryResourceException(std::string const& message)
    : Exception(message, true) {}
MemoryResourceException::~MemoryResourceException() = default;
char const* MemoryResourceException::name() const { return "Veltro::MemoryResourceException"; }
void MemoryResourceException::throwException(std::string const& message) {
  throw MemoryResourceException(message);
}

NoPermissionException::NoPermissionException(std::string const& message)
    : Exception(message, true) {}
NoPermissionException::~NoPermissionException() = default;
char const* NoPermissionException::name() const { return "Veltro::NoPermissionException"; }
void NoPermissionException::throwException(std::string const& message) {
  throw NoPermissionException(message);
}

UnimplementedException::UnimplementedException(std::string const& message)
    : Exception(message, true) {}
UnimplementedException::~UnimplementedException() = default;
char const* UnimplementedException::name() const { return "Veltro::UnimplementedException"; }
void UnimplementedException::throwException(std::string const& message) {
  throw UnimplementedException(message);
}

InvalidInitializeException::InvalidInitializeException(std::string const& message)
    : Exception(message, true) {}
InvalidInitializeException::~InvalidInitializeException() = default;
char const* InvalidInitializeException::name() const {
  return "Veltro::InvalidInitializeException";
}
void InvalidInitializeException::throwException(std::string const& message) {
  throw InvalidInitializeException(message);
}

RuntimeException::RuntimeException(std::string const& message) : Exception(message, true) {}
RuntimeException::~RuntimeException() = default;
char const* RuntimeException::name() const { return "Veltro::RuntimeException"; }
void RuntimeException::throwException(std::string const& message) {
  throw RuntimeException(message);
}

OutOfRangeException::OutOfRangeException(std::string const& message) : Exception(message, true) {}
OutOfRangeException::~OutOfRangeException() = default;
char const* OutOfRangeException::name() const { return "Veltro::OutOfRangeException"; }
void OutOfRangeException::throwException(std::string const& message) {
  throw OutOfRangeException(message);
}

CorruptionDetectedException::CorruptionDetectedException(std::string const& message)
    : Exception(message, true) {}
CorruptionDetectedException::~CorruptionDetectedException() = default;
char const* CorruptionDetectedException::name() const {
  return "Veltro::CorruptionDetectedException";
}
void CorruptionDetectedException::throwException(std::string const& message) {
  throw CorruptionDetectedException(message);
}

InvalidSizeException::InvalidSizeException(std::string const& message)
    : CorruptionDetectedException(message) {}
InvalidSizeException::~InvalidSizeException() = default;
char const* InvalidSizeException::name() const { return "Veltro::InvalidSizeException"; }
void InvalidSizeException::throwException(std::string const& message) {
  throw InvalidSizeException(message);
}

AssertException::AssertException(std::string const& message) : Exception(message, true) {}
AssertException::~AssertException() = default;
char const* AssertException::name() const { return "Veltro::AssertException"; }
void AssertException::throwException(std::string const& message) { throw AssertException(message); }

}  // namespace Veltro
