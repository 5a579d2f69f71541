#pragma once
#include <cstdio>
#include <cstdlib>
#include <random>

namespace Veltro {

/// How often a hammer strikes, and the chances it strikes by. VELTRO_HAMMER multiplies the rounds;
/// VELTRO_SEED replays the seed that a run has printed.
class Hammer {
 public:
  explicit Hammer(unsigned rounds)
      : rounds_(rounds * _number("VELTRO_HAMMER", 1)),
        random_(_number("VELTRO_SEED", std::random_device()())) {}
  unsigned rounds() const { return rounds_; }
  /// A number from 0 to `below` - 1.
  unsigned chance(unsigned below) { return static_cast<unsigned>(random_() % below); }

 private:
  static unsigned _number(char const* variable, unsigned otherwise) {
    char const* const text = std::getenv(variable);
    auto const number =
        text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
    std::printf("%s=%u\n", variable, number);
    return number;
  }

  unsigned const rounds_;
  std::mt19937 random_;
};

}  // namespace Veltro
