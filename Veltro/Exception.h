#pragma once
#include <exception>
#include <string>

#include "Veltro/Backtrace.h"
#include "Veltro/Export.h"

namespace Veltro {

/// Root of every error that the library reports by exception: a message, and the stack at the
/// place of the throw. The stack is captured at once and made readable only by what(), so an
/// exception that is caught and dropped never pays for symbols.
///
/// what() reads: name("message"), a line "Backtrace:", then a line a frame. It is built at the
/// first call and kept; sharing one exception object between threads needs a first call first.
class VELTRO_API Exception : public std::exception {
 public:
  /// Takes the caller's backtrace if wanted.
  Exception(std::string const& message, bool wantBacktrace);
  ~Exception() override;
  /// The message, with the backtrace behind it; made at the first call, valid while this lives.
  /// The bare message as long as there is no memory for that.
  char const* what() const noexcept override;
  /// The class's own name, with its namespace.
  virtual char const* name() const;

  /// The message alone, and the backtrace, which is empty if it was not wanted.
  std::string const& message() const { return message_; }
  Backtrace const& backtrace() const { return backtrace_; }

 private:
  Backtrace backtrace_;
  std::string message_;
  mutable std::string whatText_;
};

/// Memory or a mapping could not be had.
class VELTRO_API MemoryResourceException : public Exception {
 public:
  explicit MemoryResourceException(std::string const& message);
  ~MemoryResourceException() override;
  char const* name() const override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// The caller may not do that.
class VELTRO_API NoPermissionException : public Exception {
 public:
  explicit NoPermissionException(std::string const& message);
  ~NoPermissionException() override;
  char const* name() const override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// Asked for something that this build or class does not do.
class VELTRO_API UnimplementedException : public Exception {
 public:
  explicit UnimplementedException(std::string const& message);
  ~UnimplementedException() override;
  char const* name() const override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// An object could not be brought into its working state.
class VELTRO_API InvalidInitializeException : public Exception {
 public:
  explicit InvalidInitializeException(std::string const& message);
  ~InvalidInitializeException() override;
  char const* name() const override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// The world did not let an operation succeed.
class VELTRO_API RuntimeException : public Exception {
 public:
  explicit RuntimeException(std::string const& message);
  ~RuntimeException() override;
  char const* name() const override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// A value outside its range.
class VELTRO_API OutOfRangeException : public Exception {
 public:
  explicit OutOfRangeException(std::string const& message);
  ~OutOfRangeException() override;
  char const* name() const override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// Data that cannot be right.
class VELTRO_API CorruptionDetectedException : public Exception {
 public:
  explicit CorruptionDetectedException(std::string const& message);
  ~CorruptionDetectedException() override;
  char const* name() const override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// A size that cannot be right: a kind of corruption, and caught as such.
class VELTRO_API InvalidSizeException : public CorruptionDetectedException {
 public:
  explicit InvalidSizeException(std::string const& message);
  ~InvalidSizeException() override;
  char const* name() const override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// A failed assertion: a fault in a program. See Veltro/Debug.h.
class VELTRO_API AssertException : public Exception {
 public:
  explicit AssertException(std::string const& message);
  ~AssertException() override;
  char const* name() const override;
  [[noreturn]] static void throwException(std::string const& message);
};

}  // namespace Veltro
