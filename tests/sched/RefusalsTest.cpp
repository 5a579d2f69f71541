// What tasks, groups and schedulers refuse, and in which words.
#include <limits>
#include <thread>

#include "SchedSupport.h"
#include "Veltro/TaskControls.h"
#include "tests/support/Child.h"

namespace Veltro {
namespace {
using testing::HasSubstr;
using testing::MatchesRegex;
using RefusalsTest = SchedTest;

TEST_F(RefusalsTest, whatIsMissingOrOutOfRange) {
  std::shared_ptr<TaskScheduler> const none;
  std::function<void()> const makers[] = {
      [&] { DoTimer(none, TaskPriority::low, "x"); },
      [&] { Pipe(none, TaskPriority::low, "x"); },
      [&] { TaskGroup::TaskGroupIs("g", TaskPriority::low, false, none); },
  };
  for (auto const& make : makers) EXPECT_EQ("Need a TaskScheduler", assertionOf(make));

  auto const task = make("t");
  EXPECT_EQ("Quantum: 0ns", assertionOf([&] { task->taskQuantumIs(0ns); }));
  EXPECT_EQ("Quantum: 1000ms", assertionOf([&] { task->taskQuantumIs(1s + 1ns); }));
  EXPECT_EQ("Quantum: 2000ms", assertionOf([&] { root->defaultTaskQuantumIs(2s); }));
  EXPECT_EQ("Quantum: -1ns", assertionOf([&] { root->defaultTaskQuantumIs(-1ns); }));
  EXPECT_THAT(assertionOf([&] { make("x", TaskPriority(5)); }), HasSubstr("oneBeyondLast"));

  auto const timer = make<DoTimer>("t");
  double const forever = std::numeric_limits<double>::infinity();
  EXPECT_EQ("maxJitterPercentage: e > 100",
            assertionOf([&] { timer->scheduleTaskJitterUp(1s, 101); }));
  EXPECT_EQ("delayIntoFuture: inf", assertionOf([&] { timer->scheduleTaskLowestDelay(forever); }));
  EXPECT_EQ("delayIntoFuture: 153722867min",
            assertionOf([&] { timer->scheduleTaskLowestDelay(std::chrono::nanoseconds::max()); }));
  EXPECT_THAT(assertionOf([&] {
                for (;;) timer->jitterOffset(-1s, 100);  // some draw is above the delay
              }),
              MatchesRegex("offset\\( .* \\) > delayIntoFuture\\( -.* \\)"));

  // Events of schedulers begin at 15, and end at 19.
  auto const event = [&](unsigned type, auto const& subject) {
    return assertionOf([&] {
      root->schedulerHistory()->insert({}, static_cast<TaskSchedulerEventType>(type), subject);
    });
  };
  EXPECT_EQ("EventType: 15", event(15, task->taskNameRef()));
  EXPECT_EQ("EventType: 14", event(14, &*root));
  EXPECT_EQ("EventType: 20", event(20, &*root));
}

TEST_F(RefusalsTest, whatIsOutOfTurn) {
  auto task = make("t");
  std::string const display = "Task: t" + TaskKey(task.get()).toStrep();
  EXPECT_EQ(display + " already registered", assertionOf([&] { root->taskRegister(task.get()); }));
  root->taskUnregister(task.get());
  EXPECT_EQ(display + " not registered", assertionOf([&] { root->taskUnregister(task.get()); }));
  task->scheduleTask();  // and dies queued, unregistered: its queue must not keep it
  task.reset();
  EXPECT_EQ(0u, root->runnableTaskCount());
  EXPECT_FALSE(turn());

  auto const strict = TaskGroup::TaskGroupIs("s", TaskPriority::high, true, root);
  EXPECT_EQ("insert failed for s", assertionOf([&] { root->registerScheduler(strict.get()); }));
  root->unregisterScheduler(strict.get());
  EXPECT_EQ("delete failed for s", assertionOf([&] { root->unregisterScheduler(strict.get()); }));
  root->registerScheduler(strict.get());
  EXPECT_EQ("taskPriority( normal ) != taskGroupPriority( high )",
            assertionOf([&] { DoTask(strict, TaskPriority::normal, "x"); }));
  DoTask(strict, TaskPriority::high, "x");
  strict->resetStats();  // by a task of normal priority
  EXPECT_TRUE(root->resetStatsInProgress());
  root->runUntilIdle();
  EXPECT_FALSE(root->resetStatsInProgress());
}

TEST(ListTest, linkedTwiceIsRefusedAndADeadListLetsGo) {
  struct Item {
    ListLinkNode plain;
    BookmarkListLinkNode marked;
  } item;
  {
    List<Item, ListLinkNode, &Item::plain> plain;
    BookmarkList<Item, BookmarkListLinkNode, &Item::marked> marked;
    plain.pushBack(item);
    marked.pushBack(item);
    EXPECT_EQ("!( element.*ptrToLinkNode ).isLinked()", assertionOf([&] { plain.pushBack(item); }));
    EXPECT_EQ("!link.isLinked()", assertionOf([&] { marked.pushBack(item); }));
  }
  EXPECT_FALSE(item.plain.isLinked() || item.marked.isLinked());
}

TEST_F(RefusalsTest, ofADescriptorTask) {
  auto const task = make<Pipe>("p");
  EXPECT_EQ("handleReadable() called with taskWatchReadable off",
            assertionOf([&] { task->handleReadable(); }));
  EXPECT_EQ("handleWritable() called with taskWatchWritable off",
            assertionOf([&] { task->handleWritable(); }));
  EXPECT_EQ("WriteTask not created by taskWatchWritableIs( true )",
            assertionOf([&] { task->taskWorkCountWritableInc(1); }));
  EXPECT_EQ("Executing task not set", assertionOf([&] { task->taskShouldYield(); }));
  task->scheduleTaskReadable();
  EXPECT_EQ("ReadTask should only run if taskWatchReadable", assertionOf([&] { turn(); }));
  task->taskWatchReadableIs(true);
  task->onRead = [&] {
    task->handleReadable();
    root->handleSchedulerRun();
  };
  task->handleReadable();
  EXPECT_EQ("Executing task already set", assertionOf([&] { turn(); }));
}

TEST_F(RefusalsTest, anotherThread) {
  auto const task = make("t");
  auto const timer = make<DoTimer>("timer");
  auto const pipe = make<Pipe>("pipe");
  std::function<void()> const entries[] = {
      [&] { task->scheduleTask(); },
      [&] { DoTask(root, TaskPriority::low, "x"); },
      [&] { TaskGroup::TaskGroupIs("x", TaskPriority::low, false, root); },
      [&] { root->taskUnregister(task.get()); },
      [&] { root->handleSchedulerRun(); },
      [&] { root->suspendedIs(true); },
      [&] { root->resetStats(); },
      [&] { root->clearStats(); },
      [&] { task->taskRunFromTest(); },
      [&] { task->taskSuspendedForTestIs(true); },
      [&] { task->taskForceYieldInTestIs(true); },
      [&] { timer->scheduleTask(); },
      [&] { timer->taskRunFromTest(); },
      [&] { timer->scheduleTaskDelay(1.0); },
      [&] { timer->scheduleTaskLowestDelay(1s); },
      [&] { timer->scheduleTaskJitterDown(1s, 1); },
      [&] { timer->scheduleTaskJitterUp(1s, 1); },
      [&] { timer->jitterOffset(1s, 1); },
      [&] { timer->stopTimerTask(); },
      [&] { timer->timerRemaining(); },
      [&] { timer->currentExpirationTime(); },
      [&] { pipe->taskWatchReadableIs(true); },
      [&] { pipe->taskWatchWritableIs(true); },
      [&] { pipe->taskWatchFdIs(pipe->pair.ends[0]); },
      [&] { pipe->preFdCloseCleanup(); },
      [&] { pipe->taskWatchFdDel(); },
  };
  auto const elsewhere = [](std::function<void()> const& action) {
    std::string text;
    std::thread([&] {
      ::pthread_setname_np(::pthread_self(), "stranger");
      text = assertionOf(action);
    }).join();
    return text;
  };
  std::string const pid = std::to_string(::getpid());
  for (auto const& entry : entries) {
    EXPECT_THAT(elsewhere(entry),
                MatchesRegex("Executing in wrong thread [0-9]+\\(stranger\\) pid " + pid +
                             " scheduler belongs to thread [0-9]+\\(.+\\) pid " + pid))
        << "entry " << &entry - entries;
  }
  EXPECT_FALSE(task->taskSuspendedForTest() || task->taskForceYieldInTest() || root->suspended());
  EXPECT_FALSE(pipe->taskWatchReadable() || pipe->taskWatchWritable());
  EXPECT_EQ(-1, pipe->taskWatchFd());
  auto const check = [&] { root->sanityCheckCurrentRunningThread(); };
  EXPECT_EQ("", assertionOf(check));
  root->threadSanityDisabledIs(true);
  EXPECT_EQ("", elsewhere(check));
  root->threadSanityDisabledIs(false);
  auxThreadCount = 1;
  EXPECT_EQ("", elsewhere(check));
  auxThreadCount = 0;
  elsewhere([&] { inChild([&] { EXPECT_EQ("", assertionOf(check)); }); });
}
}  // namespace
}  // namespace Veltro
