// An agent that bumps the counters of its arguments once: [set name or "-" for none] counter...
#include <cstdio>
#include <cstring>

#include "Veltro/Counters.h"

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  Veltro::U64 own = 40;
  Veltro::Counters counters(std::strcmp(argv[1], "-") == 0 ? nullptr : argv[1]);
  for (int i = 2; i < argc; ++i) {
    Veltro::U64* const counter = counters.counter(argv[i], &own);
    ++*counter;
    std::printf("%s %s %llu\n", argv[i], counter == &own ? "own" : "live",
                static_cast<unsigned long long>(*counter));
  }
  std::printf("without storage %s\n", counters.counter("n", nullptr) == nullptr ? "none" : "live");
}
