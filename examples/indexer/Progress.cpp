#include "Progress.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

namespace Indexer {
namespace {

constexpr unsigned kBarWidth = 30;
constexpr std::uint8_t kJitterPercent = 10;

}  // namespace

Progress::Progress(std::shared_ptr<Veltro::TaskScheduler> scheduler,
                   std::function<Figures()> figures)
    : TimerTask(std::move(scheduler), Veltro::TaskPriority::normal, "progress"),
      figures_(std::move(figures)),
      terminal_(::isatty(STDERR_FILENO) == 1) {}

void Progress::start() { scheduleTaskJitterUp(terminal_ ? 0.1 : 1.0, kJitterPercent); }

void Progress::finish() {
  stopTimerTask();
  _draw();
  if (terminal_) std::fputc('\n', stderr);
}

void Progress::taskExecute() {
  _draw();
  start();
}

void Progress::_draw() {
  Figures const now = figures_();
  double const megabytes = static_cast<double>(now.bytes) / 1e6;
  if (!terminal_) {
    std::fprintf(stderr, "indexed %zu of %zu files found so far, %.1f MB\n", now.done, now.found,
                 megabytes);
    return;
  }
  std::size_t const filled = now.found == 0 ? 0 : kBarWidth * now.done / now.found;
  std::string const bar = std::string(filled, '#') + std::string(kBarWidth - filled, '.');
  std::fprintf(stderr, "\r[%s] %zu/%zu files  %.1f MB ", bar.c_str(), now.done, now.found,
               megabytes);
}

}  // namespace Indexer
