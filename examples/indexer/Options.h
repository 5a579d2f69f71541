#pragma once
#include <string>

namespace Indexer {

/// What the command line asks for.
struct Options {
  std::string directory = "/usr/include";
  std::string socketPath;  // empty: a path of this process's own below the temporary directory
  std::string hash = "fnv1a";
  std::string counters;  // under which name to publish counters; empty: none
  bool stay = false;     // go on serving queries and following changes when the index is done
  bool help = false;
};

/// Reads the command line. A word it does not know, or one too many, throws
/// std::invalid_argument with a line for the user.
Options parseOptions(int argc, char* argv[]);

/// The text of --help.
char const* usage();

}  // namespace Indexer
