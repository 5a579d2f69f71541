#include "TimerQueue.h"

#include <cmath>

namespace Kiv {

void TimerQueue::leave(Timer& timer) {
  _withdraw(timer);
  heap_.leave(timer);
}

void TimerQueue::arm(Timer& timer, double seconds, double latest) {
  if (seconds > latest) {
    if (std::isinf(seconds)) {
      _disarm(timer);
    } else {
      _armFuture(timer, seconds);
    }
  } else {
    _armPast(timer, std::isnan(seconds) ? latest : seconds);
  }
}

double TimerQueue::earliest() {
  if (!_dueList().empty()) return _dueList().first()->timeMin_;
  Timer const* const timer = heap_.top();
  return timer != nullptr ? timer->timeMin_ : std::numeric_limits<double>::infinity();
}

void TimerQueue::take(double latest) {
  dueList_ = 1 - dueList_;
  if (heap_.bound() <= latest) _mergeHeap(latest);
}

void TimerQueue::_mergeHeap(double latest) {
  auto const before = [](Timer const& a, Timer const& b) {
    if (a.timeMin_ < b.timeMin_) return true;
    return !(b.timeMin_ < a.timeMin_) && a.armed_ < b.armed_;
  };
  Timer* successor = _batch().first();
  for (Timer* timer = heap_.top(); timer != nullptr && timer->timeMin_ <= latest;
       timer = heap_.top()) {
    heap_.remove(*timer);
    while (successor != nullptr && before(*successor, *timer)) {
      successor = TimerList::next(*successor);
    }
    _batch().insertBefore(successor, *timer);
    timer->place_ = _listPlace(1 - dueList_);
  }
}

/// A member of the batch stays in it: its call comes and finds it disarmed.
void TimerQueue::_disarm(Timer& timer) {
  if (!inBatch(timer)) _withdraw(timer);
  timer.timeMin_ = std::numeric_limits<double>::infinity();
}

void TimerQueue::_leavePlace(Timer& timer) {
  if (timer.place_ == Place::heap) {
    heap_.remove(timer);
  } else {
    _listOf(timer).remove(timer);
  }
  timer.place_ = Place::none;
}

void TimerQueue::_armPast(Timer& timer, double deadline) {
  _withdraw(timer);
  _setKey(timer, deadline);
  if (_dueList().empty() || !(deadline < _dueList().last()->timeMin_)) {
    _appendDue(timer);
  } else {
    _insertHeap(timer);
  }
}

void TimerQueue::_armFuture(Timer& timer, double deadline) {
  if (timer.place_ != Place::heap) {
    _withdraw(timer);
    _setKey(timer, deadline);
    _insertHeap(timer);
    return;
  }
  bool const later = deadline >= timer.timeMin_;
  _setKey(timer, deadline);
  if (!later) heap_.update(timer);
}

}  // namespace Kiv
