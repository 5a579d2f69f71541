// What a trace statement that is off adds to a loop (BM_EmptyLoop is the yardstick), and what a
// record costs that goes to /dev/null.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "Kiv/Trace.h"
#include "Veltro/Debug.h"

namespace {
constexpr char const* kSourceFile = "TraceBench";
constexpr int kStatements = 1000;  // per iteration, so that the library's own loop is lost in it

struct Handler final : Kiv::TraceHandle, Veltro::Platform::DebugHandler {
  Handler() : TraceHandle("TraceBench", 0), DebugHandler("TraceBench") {
    levelsEnabled_ = facility()->levelsEnabledPtr();
  }
  void enabledIs(unsigned level, bool on) override { facility()->levelEnabledIs(level, on); }
  void dump(Veltro::Platform::DebugStream& stream, unsigned level, char const* file, int line,
            char const* function) override {
    Kiv::traceHelper(*this, level, 1, file, line, function, stream.str().c_str());
  }
};

void BM_EmptyLoop(benchmark::State& state) {
  for (auto _ : state) {
    for (int i = 0; i < kStatements; ++i) benchmark::DoNotOptimize(i);
  }
  state.SetItemsProcessed(state.iterations() * kStatements);
}
BENCHMARK(BM_EmptyLoop);

void BM_TraceOff(benchmark::State& state) {
  Handler handler;
  int evaluated = 0;
  for (auto _ : state) {
    for (int i = 0; i < kStatements; ++i) {
      benchmark::DoNotOptimize(i);
      VELTRO_TRACE(handler, 5, "value " << ++evaluated);
    }
  }
  if (evaluated != 0) state.SkipWithError("a statement that is off was evaluated");
  state.SetItemsProcessed(state.iterations() * kStatements);
}
BENCHMARK(BM_TraceOff);

void BM_TraceOn(benchmark::State& state) {
  Handler handler;
  handler.enabledIs(5, true);
  int const keptError = ::dup(STDERR_FILENO);
  int const null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  ::dup2(null, STDERR_FILENO);
  int evaluated = 0;
  for (auto _ : state) VELTRO_TRACE(handler, 5, "value " << ++evaluated);
  ::dup2(keptError, STDERR_FILENO);
  ::close(keptError);
  ::close(null);
  handler.enabledIs(5, false);
  if (evaluated != state.iterations()) state.SkipWithError("records are missing");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TraceOn);

}  // namespace
