#pragma once
#include <algorithm>
#include <deque>
#include <string>
#include <utility>

#include "Kiv/Entity.h"
#include "Kiv/Exception.h"

namespace Kiv {

/// A first-in-first-out queue of an entity. Each element has a U32 index, one more than that of
/// the element queued before it; indices are never used again. Tells nobody of changes, and is
/// never kept in the attribute log.
template <typename T>
class Queue final : private EntityPart {
 public:
  /// Where the queue stands.
  struct Metadata {
    U32 head;  ///< index of the front element; of the next one to come while the queue is empty
    U32 tail;  ///< index given out last, 0 at first
  };

  /// An empty queue, part of `owner`.
  explicit Queue(Entity& owner) : EntityPart(owner) {}

  /// Of the elements that are in it now.
  bool empty() const { return elements_.empty(); }
  std::size_t size() const { return elements_.size(); }

  /// Queues, and returns the element's index. After index 0xffffffff nothing can be queued any
  /// more: RangeException("linkqueue index space full").
  U32 enq(T value) {
    if (tail_ == 0xffffffffu) throw RangeException("linkqueue index space full");
    elements_.emplace_back(tail_ + 1, std::move(value));
    return ++tail_;
  }

  /// Takes the front element; T() from an empty queue.
  T deq() {
    if (elements_.empty()) return T();
    T value = std::move(elements_.front().second);
    elements_.pop_front();
    return value;
  }

  /// The element with that index; T() where there is none.
  T operator()(U32 index) const {
    auto const at = _at(elements_, index);
    return _found(at, index) ? at->second : T();
  }
  /// Replaces the element with that index, or puts one back where it was. An index that was not
  /// yet given out throws RangeException.
  void is(U32 index, T value) {
    if (index == 0 || index > tail_) {
      throw RangeException("linkqueue index " + std::to_string(index) + " was not given out");
    }
    auto const at = _at(elements_, index);
    if (_found(at, index)) {
      at->second = std::move(value);
    } else {
      elements_.emplace(at, index, std::move(value));
    }
  }
  /// Removes the element with that index, and returns it; T() where there is none.
  T del(U32 index) {
    auto const at = _at(elements_, index);
    if (!_found(at, index)) return T();
    T value = std::move(at->second);
    elements_.erase(at);
    return value;
  }
  /// Removes all elements; the indices go on.
  void delAll() { elements_.clear(); }

  /// As they are now.
  Metadata metadata() const {
    return {elements_.empty() ? tail_ + 1 : elements_.front().first, tail_};
  }
  /// Drops the elements before `head` and goes on counting from `tail`, which must not be less
  /// than an index still queued (RangeException).
  void metadataIs(Metadata metadata) {
    if (!elements_.empty() && metadata.tail < elements_.back().first) {
      throw RangeException("linkqueue tail " + std::to_string(metadata.tail) +
                           " lies before the last element");
    }
    elements_.erase(elements_.begin(), _at(elements_, metadata.head));
    tail_ = metadata.tail;
  }

  /// Index and value, front first.
  std::deque<std::pair<U32, T>> const& all() const { return elements_; }

 private:
  /// First element with at least that index.
  template <typename Elements>
  static auto _at(Elements& elements, U32 index) {
    return std::lower_bound(elements.begin(), elements.end(), index,
                            [](auto const& element, U32 i) { return element.first < i; });
  }
  template <typename At>
  bool _found(At at, U32 index) const {
    return at != elements_.end() && at->first == index;
  }

  std::deque<std::pair<U32, T>> elements_;  // ascending indices
  U32 tail_ = 0;
};

}  // namespace Kiv
