// The order of virtual operations is part of the interface: programs built against an earlier
// release call by slot.
#include <cstring>

#include "SchedSupport.h"

namespace Veltro {
namespace {
// A pointer to a virtual member holds one more than its offset in the table.
template <class Member>
std::size_t slot(Member member) {
  std::size_t offset = 0;
  std::memcpy(&offset, &member, sizeof offset);
  return (offset - 1) / sizeof(void*);
}

TEST(SlotOrderTest, stays) {
  using Root = TaskSchedulerRoot;
  using Fd = FileDescriptorTask;
  using ns = std::chrono::nanoseconds;
  std::size_t const task[] = {slot(&_TaskBase::taskScheduled), slot(&_TaskBase::taskShouldYield),
                              slot(&_TaskBase::taskWorkCountInc),
                              slot(&_TaskBase::taskWorkPendingIs), slot(&_TaskBase::handleTaskBusy),
                              slot(&_TaskBase::handleResetStats),
                              // two slots of the destructor
                              slot(&TaskImpl::scheduleTask), slot(&TaskImpl::taskRunFromTest),
                              slot(&TaskImpl::taskStatus), slot(&TaskImpl::taskExecute)};
  EXPECT_THAT(task, testing::ElementsAre(0, 1, 2, 3, 4, 5, 8, 9, 10, 11));
  EXPECT_EQ(8u, slot(&Fd::taskExecuteReadable));
  EXPECT_EQ(9u, slot(&Fd::taskExecuteWritable));
  std::size_t const scheduler[] = {
      slot(&TaskScheduler::resetStatsInProgress), slot(&TaskScheduler::printStats),
      slot(&TaskScheduler::requestSchedulerRun), slot(&TaskScheduler::handleTaskForceYieldInTest),
      slot(&TaskScheduler::taskRegister),
      // two slots of the destructor
      slot(&Root::taskCreated), slot(&Root::taskDestroyed), slot(&Root::timerCreated),
      slot(&Root::timerDestroyed), slot(&Root::fileDescriptorTaskCreated),
      slot(&Root::fileDescriptorTaskDestroyed),
      slot(static_cast<bool (Root::*)(TimerTask&, double, bool)>(&Root::timerStart)),
      slot(static_cast<bool (Root::*)(TimerTask&, ns, bool)>(&Root::timerStart)),
      slot(&Root::timerStop), slot(&Root::timerRemaining), slot(&Root::timerExpiry),
      slot(&Root::fileDescriptorTaskWatchReadableIs),
      slot(&Root::fileDescriptorTaskWatchWritableIs), slot(&Root::fileDescriptorTaskFd),
      slot(&Root::fileDescriptorTaskFdIs), slot(&Root::fileDescriptorTaskFdDel),
      slot(&Root::preFdCloseCleanup)};
  std::size_t expected = 0;
  for (std::size_t actual : scheduler) {
    EXPECT_EQ(expected, actual);
    expected += expected == 4 ? 3 : 1;
  }
}
}  // namespace
}  // namespace Veltro
