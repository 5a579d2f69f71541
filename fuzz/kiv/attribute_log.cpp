// Attribute logs: a refused log changes nothing, an accepted one is written again as it was read,
// and a damaged one is refused.
#include "Kiv/AttributeLog.h"
#include "fuzz/support/Fuzz.h"
#include "tests/kiv/Lamp.h"

namespace Veltro::fuzz {
namespace {

Kiv::Ptr<Kiv::Lamp> lamp() {
  auto const result = Kiv::allocate<Kiv::Lamp>("desk");
  result->tilt.is(0.1);
  result->room.is("a 'b'\n", 7u);
  result->mark.is(-3, {"x", 2});
  return result;
}

bool restores(Kiv::Ptr<Kiv::Lamp> const& entity, std::string const& log) {
  try {
    Kiv::AttributeLog::restore(entity, log);
    return true;
  } catch (Kiv::RangeException const&) {
    return false;
  }
}

}  // namespace

int run(Input& input) {
  auto const entity = lamp();
  entity->level.is(77u);
  std::string const before = Kiv::AttributeLog::text(*entity);
  bool const restored = restores(entity, input.until('\0'));
  std::string after = Kiv::AttributeLog::text(*entity);
  FUZZ_CHECK(restored || before == after, after);

  auto const other = lamp();
  FUZZ_CHECK(restores(other, after), after);
  FUZZ_CHECK(Kiv::AttributeLog::text(*other) == after, after);

  std::size_t const place = (input.byte() * 256u + input.byte()) % after.size();
  char const damage = static_cast<char>(input.byte());
  if (std::exchange(after[place], damage) == damage) return 0;
  FUZZ_CHECK(!restores(lamp(), after), after);
  return 0;
}

}  // namespace Veltro::fuzz
