#pragma once
#include "tests/support/Shell.h"

namespace Veltro {

/// Runs the program with these arguments.
inline Outcome veltro(std::string const& arguments, std::string const& redirect = "") {
  return shell(VELTRO_TOOL " " + arguments + redirect);
}

}  // namespace Veltro
