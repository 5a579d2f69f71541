// What the category "TaskScheduler" says, line by line.
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <sstream>

#include "SchedSupport.h"
#include "Veltro/Debug.h"

namespace Veltro {
namespace {
/// Standard error while it lives.
class StderrCapture {
 public:
  StderrCapture() : saved_(::dup(2)), file_(std::tmpfile()) { ::dup2(::fileno(file_), 2); }
  ~StderrCapture() {
    ::dup2(saved_, 2);
    ::close(saved_);
    std::fclose(file_);
  }
  StderrCapture(StderrCapture const&) = delete;
  StderrCapture& operator=(StderrCapture const&) = delete;

  /// The lines so far, with the addresses of tasks taken out.
  std::vector<std::string> lines() const {
    std::string text(static_cast<std::size_t>(::lseek(2, 0, SEEK_END)), '\0');
    EXPECT_EQ(static_cast<ssize_t>(text.size()), ::pread(2, text.data(), text.size(), 0));
    std::istringstream in(std::regex_replace(text, std::regex("\\(0x[0-9a-f]+\\)"), "@"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

 private:
  int const saved_;
  std::FILE* const file_;
};

struct TraceLinesTest : SchedTest {
  TraceLinesTest() {
    Platform::setTraceFormat("%l %m");
    Platform::setupVeltroDebug("TaskScheduler/0-9");
  }
  ~TraceLinesTest() override {
    Platform::clearVeltroDebug("TaskScheduler/1-9");
    Platform::clearTraceFormat();
  }
};

TEST_F(TraceLinesTest, eachStepHasItsLine) {
  auto const group = TaskGroup::TaskGroupIs("g", TaskPriority::low, false, root);
  std::shared_ptr<DoTask> task;
  auto const timer = make<DoTimer>("timer");
  struct {
    char const* name;
    std::function<void()> action;
    std::vector<std::string> lines;
  } const cases[] = {
      {"register",
       [&] { task = make("t", TaskPriority::normal, taking(45ms)); },
       {"4 root Register t@"}},
      {"schedule",
       [&] { task->scheduleTask(); },
       {"8 Scheduled t@", "8 root Scheduler has runnable tasks, request run"}},
      {"unschedule", [&] { task->unscheduleTask(); }, {"8 Unscheduled t@"}},
      {"idle", [&] { root->turn(); }, {"8 root Scheduler idle"}},
      {"violation",
       [&] {
         task->scheduleTask();
         root->turn();
       },
       {"8 Scheduled t@", "8 root Scheduler has runnable tasks, request run", "8 Running t@",
        "5 Ran t@ used 45ms 225% violation", "8 root Scheduler completed task, request run"}},
      {"within the quantum",
       [&] { timer->taskRunFromTest(); },
       {"8 Running timer@", "7 Ran timer@ used 0ns"}},
      {"quantum", [&] { task->taskQuantumIs(5ms); }, {"5 Set quantum t@ to 5ms"}},
      {"force yield", [&] { task->taskForceYieldInTestIs(true); }, {"1 Set quantum t@ to 0ns"}},
      {"and off", [&] { task->taskForceYieldInTestIs(false); }, {"5 Set quantum t@ to 20ms"}},
      {"suspend", [&] { task->taskSuspendedForTestIs(true); }, {"1 Suspend t@"}},
      {"unsuspend",
       [&] { task->taskSuspendedForTestIs(false); },
       {"1 Unsuspend t@", "8 Scheduled t@"}},
      {"root suspended",
       [&] {
         root->suspendedIs(true);
         root->handleSchedulerRun();
         root->suspendedIs(false);
       },
       {"8 root Suspended"}},
      {"timer start", [&] { timer->scheduleTaskDelay(2.5); }, {"8 Timer started timer@ delay 2.5"}},
      {"timer kept",
       [&] { timer->scheduleTaskLowestDelay(3s); },
       {"8 Timer already running timer@ expire in 2500ms"}},
      {"jitter up",
       [&] { timer->scheduleTaskJitterUp(1s, 0); },
       {"9 Timer jitterUp timer@ delay 1000ms + 0ns = 1000ms",
        "8 Timer started timer@ delay 1000ms"}},
      {"jitter down",
       [&] { timer->scheduleTaskJitterDown(0.5, 0); },
       {"9 Timer jitterDown timer@ delay 0.5 - 0 = 0.5", "8 Timer started timer@ delay 0.5"}},
      {"timer stop", [&] { timer->stopTimerTask(); }, {"9 Timer stopped timer@, was running"}},
      {"timer stopped",
       [&] { timer->stopTimerTask(); },
       {"9 Timer stopped timer@, was not running"}},
      {"lowest of what is due",
       [&] {
         timer->scheduleTask();
         timer->scheduleTaskLowestDelay(1.0);
         timer->unscheduleTask();
       },
       {"8 Scheduled timer@", "8 Already on runQueue timer@", "8 Unscheduled timer@"}},
      {"history", [&] { root->clearHistory(); }, {"8 root history cleared"}},
      {"thread check",
       [&] {
         root->threadSanityDisabledIs(true);
         root->threadSanityDisabledIs(true);
         root->threadSanityDisabledIs(false);
       },
       {"1 root disable thread sanity checking", "1 root enable thread sanity checking"}},
      {"unregister", [&] { task.reset(); }, {"4 root Unregister t@"}},
      {"in a group",
       [&] { DoTask(group, TaskPriority::low, "x"); },
       {"4 g Register x@", "4 g Unregister x@"}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    StderrCapture const capture;
    c.action();
    EXPECT_EQ(c.lines, capture.lines());
  }
}

TEST(TraceSettingTest, theFirstSchedulerAsksForAssertionsOnce) {
  std::unique_ptr<Platform::DebugHandler> const handler(Platform::getDebugHandler("TaskScheduler"));
  bool const first = !handler->levelEnabled(0);  // else another test made the first
  ::setenv("TRACE", "X", 1);
  for (int i = 0; i < 2; ++i) std::make_shared<ManualRoot>();
  EXPECT_STREQ(first ? "X,TaskScheduler/0" : "X", ::getenv("TRACE"));
}
}  // namespace
}  // namespace Veltro
