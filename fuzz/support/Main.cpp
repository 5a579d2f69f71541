// Between the fuzzer and the target.
#include "fuzz/support/Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  Veltro::fuzz::Input input(std::string(reinterpret_cast<char const*>(data), size));
  return Veltro::fuzz::run(input);
}
