#pragma once
#include <cstddef>
#include <limits>
#include <new>
#include <vector>

#include "Kiv/ActivityManager.h"

namespace Kiv {

/// Memory that begins at a cache line.
template <typename T>
struct CacheLineAllocator {
  using value_type = T;
  static constexpr std::align_val_t kLine{64};
  CacheLineAllocator() = default;
  template <typename U>
  CacheLineAllocator(CacheLineAllocator<U> const&) {}
  T* allocate(std::size_t n) { return static_cast<T*>(::operator new(n * sizeof(T), kLine)); }
  void deallocate(T* memory, std::size_t) { ::operator delete(memory, kLine); }
  bool operator==(CacheLineAllocator const&) const { return true; }
  bool operator!=(CacheLineAllocator const&) const { return false; }
};

/// Timers by (deadline, order of arming): a heap of four children a node.
///
/// Entries carry the deadline, so that a comparison does not touch the timer; the four children
/// of a node share one cache line; where a timer stands is kept in a dense table, so that moving
/// entries does not touch timers either. A timer has a slot in the tables from join() to leave();
/// only join() allocates.
///
/// A timer moved to a later time stays where it is, with its old key, until that key comes up:
/// timeouts that are pushed out over and over cost two stores each. An entry whose order of
/// arming differs from its timer's is such a one; its key is never later than the timer's.
class TimerHeap final {
 public:
  using Timer = Clock::Notifiee;
  TimerHeap() : entries_(kRoot + 1) {}

  void join(Timer& timer);
  void leave(Timer& timer);

  bool empty() const { return end_ == kRoot; }
  /// No deadline is earlier than this; infinite when empty.
  double bound() const { return entries_[kRoot].deadline; }
  /// The earliest timer, null when empty.
  Timer* top();
  /// Takes off what top() has just given.
  void popTop();

  /// The key is timer's timeMin_ and armed_.
  void insert(Timer& timer);
  /// The timer in the heap has got a new key that may be earlier.
  void update(Timer& timer);
  void remove(Timer& timer) { _removeAt(positions_[timer.slot_]); }

 private:
  struct alignas(16) Entry {
    double deadline = std::numeric_limits<double>::infinity();
    U32 slot = 0;
  };
  // The root stands at 3, so that each group of children begins at a multiple of four.
  static constexpr U32 kRoot = 3;
  static U32 _parent(U32 position) { return position / 4 + 2; }
  static U32 _firstChild(U32 position) { return (position - 2) * 4; }

  bool _before(Entry const& a, Entry const& b) const {
    if (a.deadline < b.deadline) return true;
    return !(b.deadline < a.deadline) && armed_[a.slot] < armed_[b.slot];
  }
  void _put(U32 position, Entry const& entry) {
    entries_[position] = entry;
    positions_[entry.slot] = position;
  }
  void _rise(U32 hole, Entry const& entry);
  U32 _sink(U32 hole);
  void _replace(U32 position, Entry const& entry) { _rise(_sink(position), entry); }
  U32 _earliestChild(U32 first) const;
  U32 _earliestOf(U32 first, U32 end) const;
  void _removeAt(U32 position);
  Entry _keyed(Timer const& timer);

  std::vector<Entry, CacheLineAllocator<Entry>> entries_;
  U32 end_ = kRoot;
  // By slot. A free slot's position is the next free slot's number.
  std::vector<U32> positions_;
  std::vector<U64> armed_;  // the order of arming that the entry stands for
  std::vector<Timer*> timers_;
  static constexpr U32 kNoSlot = ~U32{0};
  U32 freeSlot_ = kNoSlot;
};

}  // namespace Kiv
