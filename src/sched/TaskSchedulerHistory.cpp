#include "Veltro/TaskSchedulerHistory.h"

#include <algorithm>
#include <boost/format.hpp>
#include <utility>

#include "SchedDebug.h"
#include "TextSink.h"
#include "Veltro/TaskScheduler.h"

namespace Veltro {
namespace {

// The task labels carry the blanks that part them from the name: two of them have none.
constexpr char const* kLabels[] = {
    "schedule   ",           "unschedule ",
    "run start  ",           "run end    ",
    "timerStart ",           "timerStop  ",
    "suspendOn  ",           "suspendOff ",
    "scheduleSus",           "frcYieldOn ",
    "frcYieldOff",           "idle       ",
    "busy       ",           "create     ",
    "delete     ",           "schedulerIdle ",
    "schedulerRunnable ",    "schedulerSuspended ",
    "schedulerUnsuspended ", "schedulerRunIgnoredWhileSuspended ",
};
constexpr unsigned kTypes = sizeof kLabels / sizeof kLabels[0];

// One byte would print as a character.
unsigned number(TaskSchedulerEventType type) { return static_cast<unsigned>(type); }

}  // namespace

std::string TaskSchedulerHistory::Event::display() const {
  VELTRO_ASSERT(schedDebug(), number(type_) < kTypes, "unexpected eventType " << number(type_));
  return kLabels[number(type_)] + subject_.string();
}

TaskSchedulerHistory::TaskSchedulerHistory() : events_(new Event[kCapacity]) {}

TaskSchedulerHistory::~TaskSchedulerHistory() noexcept(false) { clear(); }

void TaskSchedulerHistory::_refuse(TaskSchedulerEventType type) {
  Platform::DebugStream stream;
  stream << "EventType: " << number(type);
  debugAndThrowAssertException(schedDebug(), 0, stream, kSourceFile, "Event", __LINE__);
}

void TaskSchedulerHistory::insert(TimePoint const& time, TaskSchedulerEventType type,
                                  TaskScheduler const* scheduler) {
  if (type < TaskSchedulerEventType::schedulerIdle || number(type) >= kTypes) _refuse(type);
  _insert(time, type, scheduler->schedulerNameRef());
}

TaskSchedulerHistory::Event const& TaskSchedulerHistory::event(std::size_t age) const {
  VELTRO_ASSERT(schedDebug(), age < count_, "no event of age " << age);
  return events_[(newest_ + age) % kCapacity];
}

void TaskSchedulerHistory::print(std::ostream& os, unsigned limit) const {
  std::locale const& classic = std::locale::classic();
  std::string const header =
      str(boost::format("Last %u scheduler events, absolute timestamp and relative to last event",
                        classic) %
          std::min<std::size_t>(limit, kCapacity));
  TextSink out(os);
  out << header + "\n" + std::string(header.size(), '-') + "\n";

  boost::format line("%22d ns since boot %10d \u00b5s %s\n", classic);
  unsigned const all = 0xffffffff;
  for (std::size_t age = 0; age < count_ && limit != 0; ++age) {
    Event const& shown = event(age);
    auto const beforeNewest = event(0).time() - shown.time();
    out << str(line % shown.time().time_since_epoch().count() % (beforeNewest.count() / 1000) %
               shown.display());
    if (limit != all && age + 1 == limit) {
      out << "Truncated due to requested limit\n";
      break;
    }
  }
  out << "\n";
  out.flush();
}

void TaskSchedulerHistory::clear() {
  while (count_ > 0) {
    events_[newest_].subject_.clear();
    newest_ = (newest_ + 1) % kCapacity;
    --count_;
  }
}

}  // namespace Veltro
