#include "Veltro/ConstStringCache.h"

#include "Veltro/Debug.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/ConstStringCache";

// Never freed: caches of static objects and ending threads still assert through it.
Platform::DebugHandler& debug() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("ConstStringCache");
  return *handler;
}

}  // namespace

void ConstStringRef::Elem::_lastRefCountDec() const {
  if (refCount_ == 0) {
    Platform::DebugStream nothingToAdd;
    debugAndThrowAssertException(debug(), 0, nothingToAdd, kSourceFile, "refCountDec", __LINE__);
  }
  refCount_ = 0;
  cache_->eraseElem(*this);
}

std::string const& ConstStringRef::_emptyString() {
  static std::string const* const empty = new std::string;
  return *empty;
}

ConstStringCache::~ConstStringCache() noexcept(false) {
  VELTRO_ASSERT(debug(), elems_.empty(), "Destroying ConstStringCache with open references");
}

// An Elem to look for is also the one to keep: the text is copied once either way, and a node is
// allocated only when the text is new.
ConstStringRef ConstStringCache::lookup(std::string const& text) {
  return ConstStringRef(*elems_.insert(ConstStringRef::Elem(this, text)).first);
}

void ConstStringCache::eraseElem(ConstStringRef::Elem const& elem) {
  auto const found = elems_.find(elem);
  VELTRO_ASSERT(debug(), found != elems_.end() && &*found == &elem, "");
  elems_.erase(found);
}

}  // namespace Veltro
