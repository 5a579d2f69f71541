#include "Veltro/UtilCpp.h"

#include <cstdlib>
#include <exception>
#include <iostream>
#include <limits>

namespace Veltro {
namespace {

double fromEnvironment() {
  char const* const text = std::getenv("WAITFOR_DEFAULT");
  try {
    if (text != nullptr) return std::stod(text);
  } catch (std::exception const&) {  // not a number, or out of range
    std::cerr << "Parsing the WAITFOR_DEFAULT env. variable failed\n";
  }
  return std::numeric_limits<double>::infinity();
}

}  // namespace

double waitForDefaultTimeout() {
  static double const seconds = fromEnvironment();
  return seconds;
}

}  // namespace Veltro
