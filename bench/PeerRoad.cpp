// HotRoad.cpp's re-arming on libev.
#include <cstdlib>
#include <cstring>

#include "bench/Rearming.h"
#include "bench/loops/Libev.h"

namespace {
template <class Loop>
int rearm(long times) {
  Loop loop;
  bench::Rearming<Loop> work(loop, 100000);
  work.draw(20000);
  work.step(times);
  return 0;
}
}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  long const times = std::atol(argv[2]);
  if (std::strcmp(argv[1], "re-arm-100000") == 0) return rearm<bench::LibevLoop>(times);
  if (std::strcmp(argv[1], "move-100000") == 0) return rearm<bench::LibevAgainLoop>(times);
  return 2;
}
