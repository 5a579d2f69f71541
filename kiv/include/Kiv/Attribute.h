#pragma once
#include <utility>

#include "Kiv/Entity.h"

namespace Kiv {

namespace detail {
struct Restoring;
}

/// One value of an entity: `level()` reads, `level.is(3)` changes and notifies.
///
/// A member of its entity: `Kiv::Attribute<Kiv::U32> level{*this, &Notifiee::onLevel};`.
/// T compares with == and moves without throwing.
template <typename T>
class Attribute final : private EntityPart {
 public:
  /// Tells nobody.
  explicit Attribute(Entity& owner, T initial = T())
      : EntityPart(owner), value_(std::move(initial)) {}
  /// Calls `reaction` of each notifiee after a change.
  template <typename N>
  Attribute(Entity& owner, void (N::*reaction)(), T initial = T())
      : EntityPart(owner), reaction_(static_cast<Reaction>(reaction)), value_(std::move(initial)) {}

  /// The value.
  T const& operator()() const { return value_; }

  /// Sets, and notifies unless the value is the one that was there. The entity may be gone on
  /// return, when a reaction let the last pointer to it go.
  void is(T value) {
    if (value_ == value) return;
    value_ = std::move(value);
    _changed();
  }

 private:
  friend struct detail::Restoring;
  using Reaction = void (Entity::Notifiee::*)();

  void _changed() const {
    if (reaction_ == nullptr) return;
    Reaction const reaction = reaction_;
    _notify(
        [](PtrInterface::NotifieeConst& notifiee, void const* context) {
          (static_cast<Entity::Notifiee&>(notifiee).**static_cast<Reaction const*>(context))();
        },
        &reaction);
  }

  Reaction reaction_ = nullptr;
  T value_;
};

}  // namespace Kiv
