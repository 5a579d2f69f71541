#include "TimerQueue.h"

namespace Kiv {

void TimerQueue::leave(Timer& timer) {
  _withdraw(timer);
  heap_.leave(timer);
}

double TimerQueue::earliest() {
  if (!_dueList().empty()) return _dueList().first()->timeMin_;
  Timer const* const timer = heap_.top();
  return timer != nullptr ? timer->timeMin_ : std::numeric_limits<double>::infinity();
}

void TimerQueue::_mergeHeap(double latest) {
  auto const before = [](Timer const& a, Timer const& b) {
    if (a.timeMin_ < b.timeMin_) return true;
    return !(b.timeMin_ < a.timeMin_) && a.armed_ < b.armed_;
  };
  Timer* successor = _batch().first();
  for (Timer* timer = heap_.top(); timer != nullptr && timer->timeMin_ <= latest;
       timer = heap_.top()) {
    heap_.popTop();
    while (successor != nullptr && before(*successor, *timer)) {
      successor = TimerList::next(*successor);
    }
    _batch().insertBefore(successor, *timer);
    timer->place_ = _listPlace(1 - dueList_);
  }
}

/// A member of the batch stays in it: its call comes and finds it disarmed.
void TimerQueue::disarm(Timer& timer) {
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

void TimerQueue::_insertHeap(Timer& timer) {
  heap_.insert(timer);
  timer.place_ = Place::heap;
}

/// The key has changed to one that may be earlier than the place in the heap, if there is one.
void TimerQueue::_setPlace(Timer& timer) {
  if (timer.place_ == Place::heap) {
    heap_.update(timer);
  } else {
    _insertHeap(timer);
  }
}

}  // namespace Kiv
