// Values and reflection: each line of the input is a value, which reads back as it is printed;
// {'name': value} sets attributes, Value('operation', ** {'parameter': value}) calls. What is
// refused changes nothing; what was set is there.
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

template <typename Action>
bool isDone(Kiv::Reflection const& reflection, Action const& action) {
  std::string const before = state(reflection);
  try {
    action();
    return true;
  } catch (Kiv::Exception const& refusal) {
    FUZZ_CHECK(state(reflection) == before, before << refusal.what());
    return false;
  }
}

// A real attribute takes integers too, and what equals the value that is there changes nothing: 0.0
// stays when -0.0 comes.
bool isSame(Kiv::Value const& now, Kiv::Value const& value) {
  if (now.real() == nullptr) return now.text() == value.text();
  return value.real() == nullptr || *now.real() == *value.real() || now.text() == value.text();
}

void apply(Kiv::Reflection& reflection, Kiv::Value const& value) {
  if (auto const* const asked = value.structure()) {
    if (isDone(reflection, [&] { reflection.call(asked->type, asked->fields); })) {
      auto const& parameters = reflection.model().operation(asked->type).parameters;
      FUZZ_CHECK(parameters.size() == asked->fields.size(), value);
    }
  }
  if (value.table() == nullptr) return;
  for (auto const& [name, attribute] : *value.table()) {
    if (name.string() == nullptr) continue;
    auto const set = [&, &key = *name.string(), &to = attribute] {
      reflection.attributeIs(key, to);
    };
    if (!isDone(reflection, set)) continue;
    Kiv::Value const now = reflection.attribute(*name.string());
    FUZZ_CHECK(isSame(now, attribute), name << " = " << attribute << ": " << now);
  }
}

}  // namespace

int run(Input& input) {
  auto const lamp = Kiv::allocate<Kiv::Lamp>("desk");
  Kiv::Reflection reflection(*lamp);
  while (!input.empty()) {
    Kiv::Value value;
    try {
      value = Kiv::Value::parsed(input.line());
    } catch (Kiv::RangeException const& refusal) {
      FUZZ_CHECK(std::string(refusal.what()).find("column ") == 0, refusal.what());
      continue;
    }
    checkRoundTrip(value);
    apply(reflection, value);
  }
  return 0;
}

}  // namespace Veltro::fuzz
