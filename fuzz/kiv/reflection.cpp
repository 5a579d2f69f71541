// Values and reflection: each line of the input is a value, which reads back as it is printed;
// {'name': value} sets attributes, Value('operation', ** {'parameter': value}) calls. What is
// refused changes nothing; what was set is there.
#include <cstring>

#include "Kiv/Model.h"
#include "fuzz/support/Fuzz.h"
#include "tests/kiv/Lamp.h"

namespace Veltro::fuzz {
namespace {

// As text, for not-a-number is not equal to itself.
void checkRoundTrip(Kiv::Value const& value) {
  std::string const text = value.text();
  Kiv::Value const again = Kiv::Value::parsed(text);
  FUZZ_CHECK(again.text() == text, text);
  FUZZ_CHECK(again == value || text.find("nan") != std::string::npos, text);
}

std::string state(Kiv::Reflection const& reflection) {
  std::string result;
  for (auto const& member : reflection.model().members()) {
    result += member.name + " " + reflection.attribute(member.name).text() + "\n";
  }
  return result;
}

// A real attribute takes integers too, and what equals the value that is there changes nothing: 0.0
// stays when -0.0 comes.
bool isSame(Kiv::Value const& now, Kiv::Value const& value) {
  if (now.real() == nullptr) return now.text() == value.text();
  return value.real() == nullptr || *now.real() == *value.real() || now.text() == value.text();
}

void set(Kiv::Reflection& reflection, std::string const& name, Kiv::Value const& value) {
  std::string const before = state(reflection);
  try {
    reflection.attributeIs(name, value);
  } catch (Kiv::RangeException const&) {
    FUZZ_CHECK(state(reflection) == before, before << name << " = " << value);
    return;
  }
  Kiv::Value const now = reflection.attribute(name);
  FUZZ_CHECK(isSame(now, value), name << " = " << value << ": " << now);
}

void call(Kiv::Reflection& reflection, Kiv::Value::Structure const& asked) {
  std::string const before = state(reflection);
  try {
    reflection.call(asked.type, asked.fields);
  } catch (Kiv::Exception const&) {
    FUZZ_CHECK(state(reflection) == before, before << Kiv::Value(asked));
    return;
  }
  auto const& parameters = reflection.model().operation(asked.type).parameters;
  FUZZ_CHECK(parameters.size() == asked.fields.size(), Kiv::Value(asked));
}

void apply(Kiv::Reflection& reflection, Kiv::Value const& value) {
  if (value.structure() != nullptr) call(reflection, *value.structure());
  if (value.table() == nullptr) return;
  for (auto const& [name, attribute] : *value.table()) {
    if (name.string() != nullptr) set(reflection, *name.string(), attribute);
  }
}

}  // namespace
}  // namespace Veltro::fuzz

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace Veltro::fuzz;
  auto const lamp = Kiv::allocate<Kiv::Lamp>("desk");
  Kiv::Reflection reflection(*lamp);
  for (Input input(data, size); !input.empty();) {
    Kiv::Value value;
    try {
      value = Kiv::Value::parsed(input.line());
    } catch (Kiv::RangeException const& refusal) {
      FUZZ_CHECK(std::strncmp(refusal.what(), "column ", 7) == 0, refusal.what());
      continue;
    }
    checkRoundTrip(value);
    apply(reflection, value);
  }
  return 0;
}
