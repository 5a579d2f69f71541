#include "Kiv/TimeStampCounter.h"

#include <atomic>
#include <thread>
#include <vector>

#include "gtest/gtest.h"

namespace Kiv {
namespace {

using namespace std::chrono_literals;

TEST(TimeStampCounterTest, learnsItsRateFromUse) {
  TimeStampCounter::ticks(1s);  // keeps the first sample
  auto const start = std::chrono::steady_clock::now();
  U64 const counter = TimeStampCounter::now();
  U64 second = 0;
  while (second == 0) {
    std::this_thread::sleep_for(2ms);
    second = TimeStampCounter::ticks(1s);
  }
  auto const time = std::chrono::steady_clock::now() - start;
  double const seconds = std::chrono::duration<double>(time).count();
  double const expected = static_cast<double>(TimeStampCounter::now() - counter) / seconds;
  EXPECT_NEAR(1, static_cast<double>(second) / expected, 0.1);

  EXPECT_EQ(second, TimeStampCounter::ticks(1s)) << "once known it stays";
  EXPECT_NEAR(1,
              static_cast<double>(TimeStampCounter::ticks(1h)) / static_cast<double>(second) / 3600,
              1e-9);
  EXPECT_EQ(0u, TimeStampCounter::ticks(0s));
  EXPECT_EQ(0u, TimeStampCounter::ticks(-1h));
  EXPECT_LT(second, TimeStampCounter::ticks(std::chrono::nanoseconds::max()));
}

TEST(TimeStampCounterTest, anyThreadMayAsk) {
  std::atomic<int> known{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      while (TimeStampCounter::ticks(1us) == 0) std::this_thread::sleep_for(1ms);
      ++known;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(4, known);
}

}  // namespace
}  // namespace Kiv
