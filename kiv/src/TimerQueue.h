#pragma once
#include <cmath>
#include <limits>

#include "Kiv/ActivityManager.h"
#include "TimerHeap.h"

namespace Kiv {

/// Timers linked through themselves, in order of (deadline, arming).
class TimerList final {
 public:
  using Timer = Clock::Notifiee;
  bool empty() const { return first_ == nullptr; }
  Timer* first() const { return first_; }
  Timer* last() const { return last_; }
  static Timer* next(Timer const& timer) { return timer.next_; }
  void append(Timer& timer) { insertBefore(nullptr, timer); }
  /// Null is the end of the list.
  void insertBefore(Timer* successor, Timer& timer) {
    timer.next_ = successor;
    timer.previous_ = successor != nullptr ? successor->previous_ : last_;
    (timer.previous_ != nullptr ? timer.previous_->next_ : first_) = &timer;
    (successor != nullptr ? successor->previous_ : last_) = &timer;
  }
  void remove(Timer& timer) {
    (timer.previous_ != nullptr ? timer.previous_->next_ : first_) = timer.next_;
    (timer.next_ != nullptr ? timer.next_->previous_ : last_) = timer.previous_;
  }

 private:
  Timer* first_ = nullptr;
  Timer* last_ = nullptr;
};

/// The armed timers and the batch under delivery.
///
/// A timer armed for a time that has come goes to the end of the due list, whatever else is
/// armed: that is what zero delays do, pass after pass. One that would break the order of that
/// list (armed for an even earlier past), and all others, go to the heap. A batch is the due list
/// as a whole, with the heap's due timers merged in; the two lists change roles, so that a batch
/// without the heap costs nothing to take.
///
/// What zero delays use is inline, for one reason above all: on 32 bits each `double` handed from
/// call to call is stored in halves and then waited for.
class TimerQueue final {
 public:
  using Timer = Clock::Notifiee;
  void join(Timer& timer) { heap_.join(timer); }
  void leave(Timer& timer);

  /// Arms, or disarms when `seconds` is infinite. `latest` is the latest time taken.
  void arm(Timer& timer, double seconds, double latest) {
    if (!(seconds > latest)) {
      _withdraw(timer);
      _setKey(timer, std::isnan(seconds) ? latest : seconds);
      _insertPast(timer);
    } else if (seconds <= std::numeric_limits<double>::max()) {
      _armFuture(timer, seconds);
    } else {
      disarm(timer);
    }
  }
  void disarm(Timer& timer);
  void armNow(Timer& timer, double latest) {
    _withdraw(timer);
    _setKey(timer, latest);
    _appendDue(timer);
  }

  /// True when a batch may be there to take: exact but for timers that were moved later.
  bool due(double latest) const { return !_dueList().empty() || heap_.bound() <= latest; }
  /// The earliest deadline, infinite when nothing is armed.
  double earliest();

  /// Makes the batch of all that is due. Only when the batch is empty.
  void take(double latest) {
    dueList_ = 1 - dueList_;
    if (heap_.bound() <= latest) _mergeHeap(latest);
  }
  bool batchEmpty() const { return _batch().empty(); }
  /// True while the call of its arming is sure to come.
  bool inBatch(Timer const& timer) const { return timer.place_ == _listPlace(1 - dueList_); }
  /// The first of the batch, which is no longer in it.
  Timer& takeFirst() {
    Timer& timer = *_batch().first();
    _batch().remove(timer);
    timer.place_ = Place::none;
    __builtin_prefetch(timer.next_);  // large batches: its memory comes while this one is called
    return timer;
  }

 private:
  using Place = Timer::Place;
  static Place _listPlace(unsigned list) {
    return list == 0 ? Place::firstList : Place::secondList;
  }
  TimerList& _listOf(Timer const& timer) {
    return lists_[timer.place_ == Place::firstList ? 0 : 1];
  }
  TimerList& _dueList() { return lists_[dueList_]; }
  TimerList const& _dueList() const { return lists_[dueList_]; }
  TimerList& _batch() { return lists_[1 - dueList_]; }
  TimerList const& _batch() const { return lists_[1 - dueList_]; }

  void _withdraw(Timer& timer) {
    if (timer.place_ != Place::none) _leavePlace(timer);
  }
  void _leavePlace(Timer& timer);
  void _setKey(Timer& timer, double deadline) {
    timer.timeMin_ = deadline;
    timer.armed_ = ++armings_;
  }
  void _appendDue(Timer& timer) {
    _dueList().append(timer);
    timer.place_ = _listPlace(dueList_);
  }
  void _insertHeap(Timer& timer);
  void _insertPast(Timer& timer) {
    if (_dueList().empty() || !(timer.timeMin_ < _dueList().last()->timeMin_)) {
      _appendDue(timer);
    } else {
      _insertHeap(timer);
    }
  }
  void _armFuture(Timer& timer, double deadline) {
    bool const later = timer.place_ == Place::heap && deadline >= timer.timeMin_;
    if (timer.place_ != Place::heap) _withdraw(timer);
    _setKey(timer, deadline);
    if (!later) _setPlace(timer);
  }
  void _setPlace(Timer& timer);
  void _mergeHeap(double latest);

  TimerList lists_[2];
  unsigned dueList_ = 0;
  TimerHeap heap_;
  U64 armings_ = 0;
};

}  // namespace Kiv
