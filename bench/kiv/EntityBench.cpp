// What a change of an attribute costs that nobody hears of, and that 1 and 10 notifiees hear of,
// beside a plain virtual call for each; and an operation called by name.
#include <benchmark/benchmark.h>

#include <vector>

#include "Kiv/ModelOf.h"

namespace {

class Lamp final : public Kiv::Entity {
 public:
  struct Notifiee : Kiv::NotifieeOf<Lamp> {
    using NotifieeOf::NotifieeOf;
    virtual void onLevel() {}
  };
  Kiv::Attribute<Kiv::U32> level{*this, &Notifiee::onLevel};
  void doDim(Kiv::U32 to) { level.is(to); }
  Kiv::Model const& model() const override {
    static Kiv::Model const& table = Kiv::ModelOf<Lamp>("Lamp")
                                         .attribute("level", &Lamp::level)
                                         .operation("doDim", &Lamp::doDim, {"to"})
                                         .made();
    return table;
  }
};

struct Counter final : Lamp::Notifiee {
  using Lamp::Notifiee::Notifiee;
  void onLevel() override { ++count; }
  Kiv::U64 count = 0;
};

void BM_VirtualCalls(benchmark::State& state) {
  Kiv::Ptr<Lamp> const lamp = Kiv::allocate<Lamp>();
  std::vector<Kiv::Ptr<Lamp::Notifiee>> notifiees;
  for (int i = 0; i < state.range(0); ++i)
    notifiees.emplace_back(Kiv::allocate<Counter>(lamp).ptr());
  for (auto _ : state) {
    for (auto const& notifiee : notifiees) {
      benchmark::DoNotOptimize(notifiee.ptr());
      notifiee->onLevel();
    }
  }
}
BENCHMARK(BM_VirtualCalls)->Arg(1)->Arg(10);

void BM_AttributeIs(benchmark::State& state) {
  Kiv::Ptr<Lamp> const lamp = Kiv::allocate<Lamp>();
  std::vector<Kiv::Ptr<Counter>> notifiees;
  for (int i = 0; i < state.range(0); ++i) notifiees.push_back(Kiv::allocate<Counter>(lamp));
  Kiv::U32 level = 0;
  for (auto _ : state) lamp->level.is(++level);
  for (auto const& notifiee : notifiees) {
    if (notifiee->count != Kiv::U64(state.iterations())) state.SkipWithError("a change was missed");
  }
}
BENCHMARK(BM_AttributeIs)->Arg(0)->Arg(1)->Arg(10);

void BM_OperationByName(benchmark::State& state) {
  Kiv::Ptr<Lamp> const lamp = Kiv::allocate<Lamp>();
  Kiv::Reflection byName(*lamp);
  Kiv::U32 level = 0;
  for (auto _ : state) byName.call("doDim", {{"to", ++level}});
  if (lamp->level() != level) state.SkipWithError("a call was lost");
}
BENCHMARK(BM_OperationByName);

}  // namespace
