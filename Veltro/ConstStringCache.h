#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <utility>

#include "Veltro/Export.h"

namespace Veltro {

using U32 = std::uint32_t;

class ConstStringCache;

/// A counted handle on one interned string of a ConstStringCache: as wide as a pointer, and a copy
/// costs one addition, so that names can be kept by the thousand. Default-constructed, cleared or
/// moved from it is null.
///
/// The cache must outlive its handles. A handle belongs to the cache's thread; the count is a
/// plain integer. Two handles of one cache are equal exactly when their strings are.
/// Giving up a reference asserts that the count was right, so the destructor may throw: a class
/// that holds handles and must not throw when it is destroyed says noexcept itself.
class VELTRO_API ConstStringRef {
 public:
  /// The interned entry.
  class VELTRO_API Elem {
   public:
    /// For the cache: an element that nobody refers to yet.
    Elem(ConstStringCache* cache, std::string const& text) : cache_(cache), string_(text) {}

    /// The text, and how many references hold it.
    std::string const& string() const { return string_; }
    U32 refCount() const { return refCount_; }
    void refCountInc() const { ++refCount_; }
    /// Gives up one reference; the last one erases the entry from its cache and frees it.
    /// Asserts that there was a reference, and that the cache knows the entry.
    void refCountDec() const {
      if (refCount_ > 1) {
        --refCount_;
        return;
      }
      _lastRefCountDec();
    }

   private:
    void _lastRefCountDec() const;

    ConstStringCache* cache_;
    std::string string_;
    mutable U32 refCount_ = 0;
  };

  ConstStringRef() = default;
  /// Each copy holds a reference; a moved-from one holds none.
  explicit ConstStringRef(Elem const& elem) : elem_(&elem) { elem.refCountInc(); }
  ConstStringRef(ConstStringRef const& other) : elem_(other.elem_) {
    if (elem_) elem_->refCountInc();
  }
  ConstStringRef(ConstStringRef&& other) noexcept : elem_(std::exchange(other.elem_, nullptr)) {}
  /// When giving up the old reference throws, nothing has changed.
  ConstStringRef& operator=(ConstStringRef const& other) {
    if (elem_ == other.elem_) return *this;
    if (elem_) elem_->refCountDec();
    elem_ = other.elem_;
    if (elem_) elem_->refCountInc();
    return *this;
  }
  ConstStringRef& operator=(ConstStringRef&& other) {
    if (this == &other) return *this;
    clear();
    elem_ = std::exchange(other.elem_, nullptr);
    return *this;
  }
  ~ConstStringRef() noexcept(false) {
    if (elem_) elem_->refCountDec();
  }

  /// Null from here on. When giving up the reference throws, nothing has changed.
  void clear() {
    if (!elem_) return;
    elem_->refCountDec();
    elem_ = nullptr;
  }

  /// False when it refers to nothing.
  explicit operator bool() const { return elem_ != nullptr; }
  /// The text; the empty string for null. Valid for as long as any handle on the entry is.
  std::string const& string() const { return elem_ ? elem_->string() : _emptyString(); }
  /// Null for a null handle.
  Elem const* elem() const { return elem_; }

  friend bool operator==(ConstStringRef const& a, ConstStringRef const& b) {
    return a.elem_ == b.elem_;
  }
  friend bool operator!=(ConstStringRef const& a, ConstStringRef const& b) { return !(a == b); }

 private:
  static std::string const& _emptyString();

  Elem const* elem_ = nullptr;
};

/// Interns strings: equal strings share one entry for as long as somebody refers to it. Entries
/// never move. For one thread; nothing is locked.
class VELTRO_API ConstStringCache {
 public:
  ConstStringCache() = default;
  ConstStringCache(ConstStringCache const&) = delete;
  ConstStringCache& operator=(ConstStringCache const&) = delete;
  /// Asserts that no reference is left. Those left over point into freed memory afterwards.
  ~ConstStringCache() noexcept(false);

  /// The entry equal to `text`, made with a copy of it when there is none.
  ConstStringRef lookup(std::string const& text);
  /// Number of different strings held.
  std::size_t size() const { return elems_.size(); }

 private:
  friend class ConstStringRef::Elem;

  struct ElemHasher {
    std::size_t operator()(ConstStringRef::Elem const& elem) const {
      return std::hash<std::string>()(elem.string());
    }
  };
  struct ElemEqual {
    bool operator()(ConstStringRef::Elem const& a, ConstStringRef::Elem const& b) const {
      return a.string() == b.string();
    }
  };

  void eraseElem(ConstStringRef::Elem const& elem);

  std::unordered_set<ConstStringRef::Elem, ElemHasher, ElemEqual> elems_;
};

}  // namespace Veltro
