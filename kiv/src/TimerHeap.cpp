#include "TimerHeap.h"

namespace Kiv {

void TimerHeap::join(Timer& timer) {
  if (freeSlot_ == kNoSlot) {
    auto const slot = static_cast<U32>(timers_.size());
    // What fails here leaves tables of unequal length, which the next attempt makes equal.
    entries_.resize(kRoot + slot + 1);
    positions_.resize(slot + 1, kNoSlot);
    armed_.resize(slot + 1);
    timers_.push_back(nullptr);
    freeSlot_ = slot;
  }
  timer.slot_ = freeSlot_;
  freeSlot_ = positions_[timer.slot_];
  timers_[timer.slot_] = &timer;
}

void TimerHeap::leave(Timer& timer) {
  timers_[timer.slot_] = nullptr;
  positions_[timer.slot_] = freeSlot_;
  freeSlot_ = timer.slot_;
}

TimerHeap::Timer* TimerHeap::top() {
  while (!empty()) {
    Entry const& entry = entries_[kRoot];
    Timer& timer = *timers_[entry.slot];
    if (armed_[entry.slot] == timer.armed_) return &timer;
    _replace(kRoot, _keyed(timer));  // it was moved later; now it takes its true place
  }
  return nullptr;
}

void TimerHeap::insert(Timer& timer) { _rise(end_++, _keyed(timer)); }

void TimerHeap::update(Timer& timer) {
  U32 const position = positions_[timer.slot_];
  if (timer.timeMin_ < entries_[position].deadline) {
    _rise(position, _keyed(timer));
  } else {
    _replace(position, _keyed(timer));
  }
}

void TimerHeap::popTop() {
  _removeAt(kRoot);
  // The one after the next is among these, and by then its timer is in the cache.
  U32 const first = _firstChild(kRoot);
  for (U32 child = first; child < first + 4 && child < end_; ++child) {
    __builtin_prefetch(timers_[entries_[child].slot]);
  }
}

void TimerHeap::_removeAt(U32 position) {
  Entry const last = entries_[--end_];
  if (position != end_) _replace(position, last);
  if (empty()) entries_[kRoot] = Entry();  // the bound of nothing is infinity
}

/// Takes over the timer's key.
TimerHeap::Entry TimerHeap::_keyed(Timer const& timer) {
  armed_[timer.slot_] = timer.armed_;
  Entry entry;
  entry.deadline = timer.timeMin_;
  entry.slot = timer.slot_;
  return entry;
}

/// Puts the entry into the hole, or above it where it belongs before its parents.
void TimerHeap::_rise(U32 hole, Entry const& entry) {
  while (hole > kRoot && _before(entry, entries_[_parent(hole)])) {
    _put(hole, entries_[_parent(hole)]);
    hole = _parent(hole);
  }
  _put(hole, entry);
}

/// Moves the earliest child into the hole, down to the last level; what then rises from there
/// seldom rises far, which saves a comparison a level.
U32 TimerHeap::_sink(U32 hole) {
  for (U32 first = _firstChild(hole); first < end_; first = _firstChild(hole)) {
    U32 const child = _earliestChild(first);
    _put(hole, entries_[child]);
    hole = child;
  }
  return hole;
}

U32 TimerHeap::_earliestChild(U32 first) const {
  if (first + 4 > end_) return _earliestOf(first, end_);
  // Sums of comparisons, not branches: which child is the earliest cannot be predicted.
  auto const deadline = [&](U32 position) { return entries_[position].deadline; };
  U32 const left = first + (deadline(first + 1) < deadline(first));
  U32 const right = first + 2 + (deadline(first + 3) < deadline(first + 2));
  U32 const earliest = left + (right - left) * (deadline(right) < deadline(left));
  double const least = deadline(earliest);
  int const equals = (deadline(first) <= least) + (deadline(first + 1) <= least) +
                     (deadline(first + 2) <= least) + (deadline(first + 3) <= least);
  return equals == 1 ? earliest : _earliestOf(first, first + 4);
}

U32 TimerHeap::_earliestOf(U32 first, U32 end) const {
  U32 earliest = first;
  for (U32 child = first + 1; child < end; ++child) {
    if (_before(entries_[child], entries_[earliest])) earliest = child;
  }
  return earliest;
}

}  // namespace Kiv
