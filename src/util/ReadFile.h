#pragma once
#include <string>

namespace Veltro::util {

struct FileText {
  std::string text;
  bool opened = false;
  bool complete = false;  // read to the end without an error
};

/// All of a file, of /proc too, whose files claim to be empty. A directory opens but never
/// completes; nor does what does not fit into memory.
FileText readFile(std::string const& path);

}  // namespace Veltro::util
