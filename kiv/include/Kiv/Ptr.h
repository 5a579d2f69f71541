#pragma once
#include <atomic>
#include <cstddef>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

#include "Kiv/Exception.h"
#include "Kiv/Export.h"
#include "Kiv/Types.h"

namespace Kiv {

/// Base of everything held by Ptr: a reference count inside the object, and a virtual destructor.
///
/// Made with no reference; the first Ptr takes the first one, and the last Ptr to go destroys the
/// object, on the thread where it goes. Counting is safe between threads; the object is not.
/// Things, not values: neither copied nor moved.
class KIV_API PtrInterface {
 public:
  class NotifieeConst;

  PtrInterface() = default;
  PtrInterface(PtrInterface const&) = delete;
  PtrInterface& operator=(PtrInterface const&) = delete;

  /// The count, and what Ptr does with it; the last referencesDec() calls onZeroReferences().
  U32 references() const { return references_.load(std::memory_order_relaxed); }
  void referencesInc() const { references_.fetch_add(1, std::memory_order_relaxed); }
  void referencesDec() const;

 protected:
  virtual ~PtrInterface();
  /// The last reference is gone. The default deletes the object; a class whose dispatcher is
  /// about to call it may put that off, and then owns the deletion.
  virtual void onZeroReferences();

 private:
  mutable std::atomic<U32> references_{0};
};

/// Base of all notifiees: objects that are told of changes by a notifier.
///
/// When a reaction throws, the dispatcher calls onNotificationException() from inside its catch
/// block (so `std::current_exception()` and `throw;` see the exception) and afterwards rethrows
/// the exception out of the run if it was left unanswered.
class KIV_API PtrInterface::NotifieeConst : public PtrInterface {
 public:
  /// The default reaction: marks the exception unanswered, and returns. An override that does
  /// not call it has answered: the exception is swallowed.
  virtual void onNotificationException();

 protected:
  ~NotifieeConst() override;
};

/// Counted pointer to a PtrInterface. Null unless given an object.
template <typename T>
class Ptr {
 public:
  Ptr() = default;
  /// Each Ptr to an object holds one reference.
  Ptr(std::nullptr_t) {}
  Ptr(T* object) : object_(object) { _take(); }
  Ptr(Ptr const& other) : object_(other.object_) { _take(); }
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U> const& other) : object_(other.ptr()) {
    _take();
  }
  ~Ptr() { _release(); }

  /// Lets go of the old object after it has taken the new one.
  Ptr& operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  /// The object; null when there is none. Dereferencing null is undefined.
  T* ptr() const { return object_; }
  T& operator*() const { return *object_; }
  T* operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }

  friend bool operator==(Ptr const& a, Ptr const& b) { return a.object_ == b.object_; }
  friend bool operator!=(Ptr const& a, Ptr const& b) { return a.object_ != b.object_; }

 private:
  void _take() const {
    if (object_ != nullptr) object_->referencesInc();
  }
  void _release() const {
    if (object_ != nullptr) object_->referencesDec();
  }
  T* object_ = nullptr;
};

/// Throws RangeException("null ValidPtr").
[[noreturn]] KIV_API void throwNullValidPtr();

/// The type system's allocation function: makes a T and returns the first pointer to it.
/// No memory: RangeException("null ValidPtr"). What T's constructor throws passes through.
template <typename T, typename... Args>
Ptr<T> allocate(Args&&... args) {
  T* const object = new (std::nothrow) T(std::forward<Args>(args)...);
  if (object == nullptr) throwNullValidPtr();
  return Ptr<T>(object);
}

}  // namespace Kiv
