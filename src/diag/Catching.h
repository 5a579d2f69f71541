#pragma once
#include <cxxabi.h>

namespace Veltro {

/// Calls `body`, and `react` inside the catch block of what it throws; says whether it threw. The
/// forced unwinding of a thread that is cancelled passes: swallowing it would end the process.
template <typename Body, typename React>
__attribute__((no_sanitize("undefined")))  // forced unwinding binds the reference to nothing
bool catching(Body&& body, React&& react) {
  try {
    body();
    return false;
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    react();
    return true;
  }
}

}  // namespace Veltro
