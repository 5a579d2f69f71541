#pragma once
#include <cstdint>
#include <locale>
#include <sstream>
#include <string>
#include <utility>

#include "Veltro/Platform.h"

// Inline down to the vtables, but for Platform::getDebugHandler: libraries below libKivVeltro use
// these classes without linking it.

namespace Veltro {

/// A named trace category with a live level mask: bit n of the mask is level n, 0 to 31.
/// A trace statement tests the mask and, when its bit is on, composes a record and dumps it.
class VELTRO_API Platform::DebugHandler {
 public:
  /// A handler whose levels are all off until a derived class supplies a live mask.
  explicit DebugHandler(std::string const& name) : levelsEnabled_(&ownLevels_), name_(name) {}
  virtual ~DebugHandler() = default;
  DebugHandler(DebugHandler const&) = delete;
  DebugHandler& operator=(DebugHandler const&) = delete;

  /// Switches one level, 0 to 31.
  virtual void enabledIs(unsigned level, bool on) = 0;
  /// Emits the text of `stream` as one record. File and function may be null.
  virtual void dump(DebugStream& stream, unsigned level, char const* file, int line,
                    char const* function) = 0;

  /// The trace category.
  std::string const& name() const { return name_; }
  /// One load and one test. Relaxed: another thread may switch levels meanwhile.
  bool levelEnabled(unsigned level) const {
    return (__atomic_load_n(levelsEnabled_, __ATOMIC_RELAXED) & (1u << level)) != 0;
  }

  U32 const ownLevels_ = 0;   // all off: where levelsEnabled_ points with no live mask
  U32 const* levelsEnabled_;  // read by every trace statement
  /// The trace category.
  std::string const name_;
};

/// What one trace record is composed into. Prints numbers alike under every global locale.
class VELTRO_API Platform::DebugStream : public std::ostringstream {
 public:
  DebugStream() { imbue(std::locale::classic()); }
};

namespace detail {

/// A borrowed or an owned debug handler.
class DebugHolder {
 public:
  explicit DebugHolder(Platform::DebugHandler& handler) : handler_(&handler), owned_(false) {}
  explicit DebugHolder(std::string const& name)
      : handler_(Platform::getDebugHandler(name)), owned_(true) {}
  DebugHolder(DebugHolder const& other)
      : handler_(other.owned_ ? Platform::getDebugHandler(other.handler_->name_) : other.handler_),
        owned_(other.owned_) {}
  DebugHolder& operator=(DebugHolder const& other) {
    // A source that borrows the very handler that this one owns: keep it.
    if (this == &other || (owned_ && handler_ == other.handler_)) return *this;
    DebugHolder copy(other);  // may throw, so before anything changes
    std::swap(handler_, copy.handler_);
    std::swap(owned_, copy.owned_);
    return *this;
  }
  ~DebugHolder() {
    if (owned_) delete handler_;
  }
  Platform::DebugHandler& handler() const { return *handler_; }

 private:
  Platform::DebugHandler* handler_;
  bool owned_;
};

}  // namespace detail

/// Base of classes that log through a handler given to them or named by them. A copy of one that
/// owns its handler gets a handler of its own with the same name.
class VELTRO_API Debuggable {
 public:
  /// Borrows a handler, or makes and owns one of that name.
  explicit Debuggable(Platform::DebugHandler& handler) : handler_(handler) {}
  explicit Debuggable(std::string const& name) : handler_(name) {}
  Debuggable(Debuggable const&) = default;
  Debuggable& operator=(Debuggable const&) = default;
  virtual ~Debuggable() = default;

  /// The handler to trace to.
  Platform::DebugHandler& debugHandler() const { return handler_.handler(); }

 private:
  detail::DebugHolder handler_;
};

/// The same under another name, for classes that have a Debuggable base already.
class VELTRO_API DebugSupport {
 public:
  /// Borrows a handler, or makes and owns one of that name.
  explicit DebugSupport(Platform::DebugHandler& handler) : handler_(handler) {}
  explicit DebugSupport(std::string const& name) : handler_(name) {}
  DebugSupport(DebugSupport const&) = default;
  DebugSupport& operator=(DebugSupport const&) = default;
  virtual ~DebugSupport() = default;

  /// The handler to trace to.
  Platform::DebugHandler& debugHandler() const { return handler_.handler(); }

 private:
  detail::DebugHolder handler_;
};

/// Throws AssertException with the record "file:function:line: text of the stream", after the
/// handler, if any and if `level` is on, has dumped that record. A null file or function empties
/// the record from there on.
[[noreturn]] VELTRO_API void debugAndThrowAssertException(Platform::DebugHandler* handler,
                                                          unsigned level,
                                                          Platform::DebugStream& stream,
                                                          char const* file, char const* function,
                                                          int line);
[[noreturn]] VELTRO_API void debugAndThrowAssertException(Platform::DebugHandler& handler,
                                                          unsigned level,
                                                          Platform::DebugStream& stream,
                                                          char const* file, char const* function,
                                                          int line);

namespace detail {

// Out of line, and `write` with them: what a statement would say costs the function around it
// neither room on the stack nor a jump.
template <typename Write>
[[gnu::cold, gnu::noinline]] void trace(Platform::DebugHandler& handler, unsigned level,
                                        char const* file, int line, char const* function,
                                        Write const& write) {
  Platform::DebugStream stream;
  write(stream);
  handler.dump(stream, level, file, line, function);
}

template <typename Handler, typename Write>
[[noreturn, gnu::cold, gnu::noinline]] void failAssertion(Handler&& handler, char const* file,
                                                          char const* function, int line,
                                                          Write const& write) {
  Platform::DebugStream stream;
  write(stream);
  debugAndThrowAssertException(handler, 0, stream, file, function, line);
}

}  // namespace detail
}  // namespace Veltro

/// Traces `text` (a chain of <<) at `level` of `handler`. Off, it costs a load and a branch and
/// evaluates nothing. The source file defines `constexpr char const* kSourceFile`.
#define VELTRO_TRACE(handler, level, text)                                               \
  do {                                                                                   \
    ::Veltro::Platform::DebugHandler& veltroHandler = (handler);                         \
    if (__builtin_expect(veltroHandler.levelEnabled(level), 0)) {                        \
      ::Veltro::detail::trace(                                                           \
          veltroHandler, (level), kSourceFile, __LINE__, __func__,                       \
          [&](::Veltro::Platform::DebugStream& veltroStream) { veltroStream << text; }); \
    }                                                                                    \
  } while (0)

/// Throws AssertException with `text` unless `condition` holds, in every build.
#define VELTRO_ASSERT(handler, condition, text)                                          \
  do {                                                                                   \
    if (__builtin_expect(!(condition), 0)) {                                             \
      ::Veltro::detail::failAssertion(                                                   \
          (handler), kSourceFile, __func__, __LINE__,                                    \
          [&](::Veltro::Platform::DebugStream& veltroStream) { veltroStream << text; }); \
    }                                                                                    \
  } while (0)
