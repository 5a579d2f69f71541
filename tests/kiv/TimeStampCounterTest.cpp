#include "Kiv/TimeStampCounter.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace Kiv {
namespace {

using namespace std::chrono_literals;

TEST(TimeStampCounterTest, learnsItsRateFromUseInAnyThread) {
  TimeStampCounter::ticks(1s);  // keeps the first sample
  auto const start = std::chrono::steady_clock::now();
  U64 const counter = TimeStampCounter::now();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      while (TimeStampCounter::ticks(1s) == 0) std::this_thread::sleep_for(2ms);
    });
  }
  for (auto& thread : threads) thread.join();
  U64 const second = TimeStampCounter::ticks(1s);
  std::chrono::duration<double> const time = std::chrono::steady_clock::now() - start;
  double const expected = static_cast<double>(TimeStampCounter::now() - counter) / time.count();
  EXPECT_NEAR(1, static_cast<double>(second) / expected, 0.1);
  EXPECT_EQ(second, TimeStampCounter::ticks(1s)) << "once known it stays";
  EXPECT_EQ(0u, TimeStampCounter::ticks(-1h));
  EXPECT_LT(second, TimeStampCounter::ticks(std::chrono::nanoseconds::max()));
}

}  // namespace
}  // namespace Kiv
