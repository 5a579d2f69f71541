// Values: what is printed reads back as the same value, and what was read prints as such.
#include <cstring>

#include "Kiv/Value.h"
#include "fuzz/support/Fuzz.h"

namespace Veltro::fuzz {
namespace {

// As text, for not-a-number is not equal to itself.
void checkRoundTrip(Kiv::Value const& value) {
  std::string const text = value.text();
  Kiv::Value const again = Kiv::Value::parsed(text);
  FUZZ_CHECK(again.text() == text, text);
  bool const nan = text.find("nan") != std::string::npos;
  FUZZ_CHECK(nan || again == value, text);
}

template <typename T>
T number(Input& input) {
  T result{};
  unsigned char bytes[sizeof result];
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(input.byte());
  std::memcpy(&result, bytes, sizeof result);
  return result;
}

Kiv::Value made(Input& input, unsigned depth) {
  switch (input.below(depth == 0 ? 6 : 8)) {
    case 0:
      return {};
    case 1:
      return input.below(2) == 1;
    case 2:
      return number<std::uint64_t>(input);
    case 3:
      return number<std::int64_t>(input);
    case 4:
      return number<double>(input);
    case 5:
      return input.until('\xff');
    case 6: {
      Kiv::Value::Table table;
      for (unsigned n = input.below(4); n > 0; --n) {
        Kiv::Value key = made(input, depth - 1);
        table.emplace_back(std::move(key), made(input, depth - 1));
      }
      return table;
    }
    default: {
      Kiv::Value::Structure structure{input.until('\xff'), {}};
      for (unsigned n = input.below(4); n > 0; --n) {
        std::string name = input.until('\xff');
        structure.fields.emplace_back(std::move(name), made(input, depth - 1));
      }
      return structure;
    }
  }
}

}  // namespace
}  // namespace Veltro::fuzz

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace Veltro::fuzz;
  Input input(data, size);
  if (input.below(2) == 0) {
    checkRoundTrip(made(input, 8));
    return 0;
  }
  try {
    checkRoundTrip(Kiv::Value::parsed(input.rest()));
  } catch (Kiv::RangeException const& refusal) {
    FUZZ_CHECK(std::strncmp(refusal.what(), "column ", 7) == 0, refusal.what());
  }
  return 0;
}
