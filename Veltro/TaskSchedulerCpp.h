#pragma once
/// Everything of the task scheduler: tasks of five priorities that run one at a time from the
/// thread's event loop, timers, descriptors, groups, statistics and history.
#include "Veltro/FileDescriptorTask.h"
#include "Veltro/Task.h"
#include "Veltro/TaskControls.h"
#include "Veltro/TaskGroup.h"
#include "Veltro/TaskPriority.h"
#include "Veltro/TaskScheduler.h"
#include "Veltro/TaskSchedulerHistory.h"
#include "Veltro/TaskSchedulerRoot.h"
#include "Veltro/TaskStat.h"
#include "Veltro/TimerTask.h"
