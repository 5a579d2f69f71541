#include "Veltro/RandomCpp.h"

#include <cstdlib>
#include <ctime>

#include "Veltro/Debug.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/RandomCpp";
constexpr char kAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
// With the alphabet's ending NUL: strings that others have stored depend on the modulus.
constexpr int kCharacters = sizeof kAlphabet;

Platform::DebugHandler& debug() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("VeltroRandom");
  return *handler;
}
[[maybe_unused]] Platform::DebugHandler& atLoad = debug();

U32 chosenSeed(char const* wish) {
  if (wish != nullptr) return static_cast<U32>(std::strtoul(wish, nullptr, 10));
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<U32>(now.tv_nsec);
}

}  // namespace

bool Random::firstSetSeedFlag = true;
U32 Random::seed_ = 0;

void Random::setSeed() {
  char const* const wish = std::getenv("QXTEST_RANDSEED");
  if (firstSetSeedFlag) {
    firstSetSeedFlag = false;
    seed_ = chosenSeed(wish);
  }
  VELTRO_TRACE(debug(), 0, "Veltro::Random::setSeed(), setting seed to " << seed_);
  std::srand(seed_);
}

U32 Random::getSeed() { return seed_; }

std::string Random::randomString(unsigned int n) {
  std::string result;
  result.reserve(n);
  for (unsigned int i = 0; i < n; ++i) result.push_back(kAlphabet[std::rand() % kCharacters]);
  return result;
}

}  // namespace Veltro
