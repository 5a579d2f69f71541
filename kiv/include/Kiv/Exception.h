#pragma once
#include <exception>
#include <string>

#include "Kiv/Export.h"

namespace Kiv {

/// Root of what libkiv and libSegMem throw.
class KIV_API Exception : public std::exception {
 public:
  explicit Exception(std::string message);
  ~Exception() override;
  char const* what() const noexcept override;

 private:
  std::string message_;
};

/// A value that is not one of those allowed: an unknown name, an ill-typed parameter, a null
/// result of an allocation.
class KIV_API RangeException : public Exception {
 public:
  using Exception::Exception;
  ~RangeException() override;
};

/// A system call's failure. what() reads "<message>: <the system's text> (<the number>)".
class KIV_API ErrnoException : public Exception {
 public:
  ErrnoException(std::string const& message, int errnum);
  ~ErrnoException() override;
  /// The errno value, so that callers can tell EMFILE from EPERM.
  int errnum() const { return errnum_; }

 private:
  int errnum_;
};

}  // namespace Kiv
