#pragma once
#include <string>

#include "Kiv/Types.h"

namespace Counters {

/// What the command line asks for.
struct Options {
  std::string log;
  std::string file;        // "": the one that the log names
  Kiv::U32 blockSize = 0;  // 0: the file's size divided by the number of blocks
  bool json = false;
  double period = 0;   // seconds between readings; 0: one reading only
  Kiv::U64 times = 0;  // readings when following; 0: no end
  bool help = false;
};

char const* usage();
/// Throws std::invalid_argument, which says what is wrong.
Options parseOptions(int argc, char* argv[]);

}  // namespace Counters
