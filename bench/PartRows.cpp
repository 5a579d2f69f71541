// Parts that other costs are made of: history, traces, exceptions, counters, reports, start-up.
#define UNW_LOCAL_ONLY
#include <fcntl.h>
#include <libunwind.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "Kiv/ModelOf.h"
#include "Kiv/Trace.h"
#include "Veltro/Debug.h"
#include "Veltro/Exception.h"
#include "Veltro/ShmemMan.h"
#include "Veltro/TaskSchedulerCpp.h"
#include "bench/Child.h"
#include "bench/Harness.h"
#include "bench/PeerRoot.h"

namespace bench {
namespace {
using Veltro::TaskSchedulerEventType;
using Veltro::TaskSchedulerHistory;

constexpr char const* kSourceFile = "bench/PartRows";
constexpr long kTimes = 100000;

double historyInsert() {
  TaskSchedulerHistory history;
  std::vector<Veltro::ConstStringRef> names;
  for (int i = 0; i < 64; ++i) names.push_back(history.cache().lookup("task " + std::to_string(i)));
  auto const insert = [&] {
    for (long i = 0; i < kTimes; ++i) {
      history.insert(TaskSchedulerHistory::TimePoint(std::chrono::nanoseconds(i)),
                     TaskSchedulerEventType::runStart, names[static_cast<std::size_t>(i) % 64]);
    }
  };
  insert();
  double const cost = nanosecondsEach(kTimes, insert);
  check(history.eventCount() == TaskSchedulerHistory::kCapacity, "events were lost");
  return cost;
}

double traceOff() {
  static Veltro::Platform::DebugHandler* const handler =
      Veltro::Platform::getDebugHandler("BenchOff");
  return nanosecondsEach(kTimes, [] {
    for (long i = 0; i < kTimes; ++i) VELTRO_TRACE(*handler, 8, "value " << i);
  });
}

// Records and entities, each beside what it cannot do without

/// `write` sends one record to standard error, which leads nowhere meanwhile.
double recordEach(std::function<void()> const& write) {
  int const kept = ::dup(STDERR_FILENO);
  int const nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  check(kept >= 0 && nowhere >= 0 && ::dup2(nowhere, STDERR_FILENO) >= 0, "no /dev/null");
  double const cost = nanosecondsEach(kTimes, [&] {
    for (long i = 0; i < kTimes; ++i) write();
  });
  ::dup2(kept, STDERR_FILENO);
  ::close(kept);
  ::close(nowhere);
  return cost;
}

double traceRecord() {
  static auto* const handle = new Kiv::TraceHandle("BenchRecord", 0);
  return recordEach([] { Kiv::traceHelper(*handle, 5, 1, kSourceFile, 7, "work", "value 12345"); });
}

double bareWrite() {
  std::string const record(64, 'x');
  return recordEach([&] {
    check(::write(STDERR_FILENO, record.data(), record.size()) > 0, "a record was lost");
  });
}

class Lamp final : public Kiv::Entity {
 public:
  class Notifiee : public Kiv::NotifieeOf<Lamp> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onLevel() {}
  };
  Kiv::Attribute<Kiv::U32> level{*this, &Notifiee::onLevel};
  Kiv::Model const& model() const override {
    static Kiv::Model const& table =
        Kiv::ModelOf<Lamp>("bench::Lamp").attribute("level", &Lamp::level).made();
    return table;
  }
};

struct Listener final : Lamp::Notifiee {
  using Lamp::Notifiee::Notifiee;
  void onLevel() override { ++count; }
  long count = 0;
};

double changeHeard() {
  auto const lamp = Kiv::allocate<Lamp>();
  auto const listener = Kiv::allocate<Listener>(lamp);
  double const cost = nanosecondsEach(kTimes, [&] {
    for (long i = 0; i < kTimes; ++i) lamp->level.is(static_cast<Kiv::U32>(i + 1));
  });
  check(listener->count == kTimes, "a change was missed");
  return cost;
}

double entityMade() {
  return nanosecondsEach(kTimes, [] {
    for (long i = 0; i < kTimes; ++i) keep(Kiv::allocate<Lamp>().ptr());
  });
}

double sharedMade() {
  struct Same {
    char bytes[sizeof(Lamp)] = {};
  };
  return nanosecondsEach(kTimes, [] {
    for (long i = 0; i < kTimes; ++i) keep(std::make_shared<Same>().get());
  });
}

// Exceptions, thrown below a stack of 20 frames

constexpr unsigned kDepth = 20;
constexpr long kThrows = 500;

__attribute__((noinline)) void descend(unsigned frames, void (*bottom)()) {
  if (frames == 0) {
    bottom();
  } else {
    descend(frames - 1, bottom);
  }
  asm volatile("");  // no tail call
}

double atDepth(void (*bottom)()) {
  return nanosecondsEach(kThrows, [&] {
    for (long i = 0; i < kThrows; ++i) {
      try {
        descend(kDepth, bottom);
      } catch (std::exception const& caught) {
        keep(&caught);
      }
    }
  });
}

double plainCursor() {
  return atDepth([] {
    unw_context_t context;
    unw_cursor_t cursor;
    unw_getcontext(&context);
    unw_init_local(&cursor, &context);
    unsigned frames = 0;
    while (frames < Veltro::Backtrace::kMaxFrames && unw_step(&cursor) > 0) {
      unw_word_t address;
      unw_get_reg(&cursor, UNW_REG_IP, &address);
      keep(address);
      ++frames;
    }
    check(frames >= kDepth, "frames were lost");
  });
}

double capture() {
  return atDepth([] {
    Veltro::Backtrace const backtrace(true);
    check(backtrace.count() >= kDepth, "frames were lost");
  });
}

double throwWithoutCapture() {
  return atDepth([] { throw Veltro::Exception("out of range", false); });
}
double throwStandard() {
  return atDepth([] { throw std::runtime_error("out of range"); });
}
double throwWithCapture() {
  return atDepth([] { throw Veltro::Exception("out of range", true); });
}

// Counters by key

std::vector<std::string> keys(int count) {
  std::vector<std::string> made;
  for (int i = 0; i < count; ++i) {
    made.push_back("interface/Ethernet" + std::to_string(i * 7919 % count) + "/drops");
  }
  return made;
}

double counterLookup() {
  return inChildWithOwnVar([] {
    auto const names = keys(10000);
    auto const manager = Kiv::allocate<Veltro::ShmemMan>("bench", "bench", 10000U);
    std::vector<Kiv::String> const kivNames(names.begin(), names.end());
    for (auto const& name : kivNames) manager->counterAddr(name, 64, false);
    return nanosecondsEach(10000, [&] {
      for (auto const& name : kivNames)
        check(manager->counterAddr(name, 64, true) != 0, "no counter");
    });
  });
}

double unorderedMapLookup() {
  auto const names = keys(10000);
  std::unordered_map<std::string, std::uint64_t> map;
  for (auto const& name : names) map.emplace(name, map.size() + 1);
  return nanosecondsEach(10000, [&] {
    for (auto const& name : names) check(map.find(name)->second != 0, "no counter");
  });
}

__attribute__((noinline)) bool has(std::unordered_map<std::string, std::uint64_t> const& map,
                                   std::string name) {
  return map.find(name) != map.end();
}

/// As counterAddr takes its key.
double unorderedMapLookupByValue() {
  auto const names = keys(10000);
  std::unordered_map<std::string, std::uint64_t> map;
  for (auto const& name : names) map.emplace(name, map.size() + 1);
  return nanosecondsEach(10000, [&] {
    for (auto const& name : names) check(has(map, name), "no counter");
  });
}

// Reports

double reportEachTask(long tasks) {
  struct Plain final : Veltro::Task {
    Plain(std::shared_ptr<LooplessRoot> const& root, std::string const& name)
        : Task(root, Veltro::TaskPriority::normal, name) {}
    void taskExecute() override {}
  };
  auto const root = std::make_shared<LooplessRoot>();
  std::vector<std::shared_ptr<Plain>> all;
  for (long i = 0; i < tasks; ++i) {
    all.push_back(std::make_shared<Plain>(root, "subsystem/worker-" + std::to_string(i)));
    all.back()->scheduleTask();
  }
  root->run();
  std::size_t bytes = 0;
  double const cost = nanosecondsEach(tasks, [&] {
    std::ostringstream stream;
    root->printStats(stream, true, true, ~0U, ~0U, 0);
    bytes = stream.str().size();
  });
  check(bytes > static_cast<std::size_t>(tasks) * 100, "rows were lost");
  return cost;
}

double printEachEvent(unsigned events) {
  TaskSchedulerHistory history;
  auto const name = history.cache().lookup("subsystem/worker");
  for (unsigned i = 0; i < TaskSchedulerHistory::kCapacity; ++i) {
    history.insert(TaskSchedulerHistory::TimePoint(std::chrono::microseconds(i)),
                   TaskSchedulerEventType::runStart, name);
  }
  std::size_t bytes = 0;
  double const cost = nanosecondsEach(static_cast<long>(events), [&] {
    std::ostringstream stream;
    history.print(stream, events);
    bytes = stream.str().size();
  });
  check(bytes > events * std::size_t{50}, "lines were lost");
  return cost;
}

Row parts() {
  return {"history and traces",
          "ns",
          {{"history insert", &historyInsert}, {"trace statement, off", &traceOff}},
          {atMost(8, "history insert")}};
}

Row records() {
  return {"trace record", "ns", {{"trace record", &traceRecord}, {"bare write", &bareWrite}}, {}};
}

Row entities() {
  return {"entity",
          "ns",
          {{"made and gone", &entityMade},
           {"std::make_shared", &sharedMade},
           {"change, heard by one", &changeHeard}},
          {}};
}

Row traceInstructions() {
  return {"trace statement, off, instructions",
          "instructions",
          {{"trace statement", [] { return instructionsEach("hot_road", "trace-off"); }}},
          {atMost(6, "trace statement")},
          true};
}

Row exceptions() {
  return {"exception below 20 frames",
          "ns",
          {{"capture", &capture},
           {"plain libunwind cursor", &plainCursor},
           {"throw without capture", &throwWithoutCapture},
           {"throw std::runtime_error", &throwStandard},
           {"throw with capture", &throwWithCapture}},
          {atMost(1.1, "capture", "plain libunwind cursor"),
           atMost(1.2, "throw without capture", "throw std::runtime_error")}};
}

Row counters() {
  return {"counter by key, 10,000 keys",
          "ns",
          {{"counterAddr", &counterLookup},
           {"std::unordered_map", &unorderedMapLookup},
           {"std::unordered_map, key by value", &unorderedMapLookupByValue}},
          {atMost(1.5, "counterAddr", "std::unordered_map")}};
}

Row reports() {
  return {"report and history print, each line",
          "ns",
          {{"report of 1,000 tasks", [] { return reportEachTask(1000); }},
           {"report of 10,000 tasks", [] { return reportEachTask(10000); }},
           {"1,000 events", [] { return printEachEvent(1000); }},
           {"10,000 events", [] { return printEachEvent(10000); }}},
          {atMost(1.5, "report of 10,000 tasks", "report of 1,000 tasks"),
           atMost(1.5, "10,000 events", "1,000 events")}};
}

Row start() {
  auto const running = [](char const* program) {
    return [program] {
      double sum = 0;
      for (int i = 0; i < 20; ++i) sum += microsecondsOfRunning(program);
      return sum / 20;
    };
  };
  Goal goal{"with our library",
            1.0,
            "x (empty program + 1,000 us)",
            {{{1, "empty program"}, {1000, ""}}, Reference::Of::sum}};
  return {"start of a program",
          "us",
          {{"with our library", running("load_ours")},
           {"empty program", running("load_nothing")},
           {"with the C++ library only", running("load_cpp")}},
          {goal}};
}
}  // namespace

Suite partRows() {
  return {{parts(), traceInstructions(), records(), entities(), exceptions(), counters(), reports(),
           start()},
          {}};
}

}  // namespace bench
