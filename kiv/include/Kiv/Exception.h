#pragma once
#include <exception>
#include <string>

#include "Kiv/Export.h"

namespace Kiv {

/// Root of what libkiv and libSegMem throw.
class KIV_API Exception : public std::exception {
 public:
  /// what() is the message.
  explicit Exception(std::string message);
  ~Exception() override;
  /// The message; valid while this lives.
  char const* what() const noexcept override;

 private:
  std::string message_;
};

/// A value that is not one of those allowed: an unknown name, an ill-typed parameter, a null
/// result of an allocation.
class KIV_API RangeException : public Exception {
 public:
  /// what() is the message.
  using Exception::Exception;
  ~RangeException() override;
};

/// A system call's failure. what() reads "<message>: <the system's text> (<the number>)".
class KIV_API ErrnoException : public Exception {
 public:
  /// `errnum` is an errno value; what() has its text.
  ErrnoException(std::string const& message, int errnum);
  ~ErrnoException() override;
  /// The errno value, so that callers can tell EMFILE from EPERM.
  int errnum() const { return errnum_; }

 private:
  int errnum_;
};

}  // namespace Kiv
