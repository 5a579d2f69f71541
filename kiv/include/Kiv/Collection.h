#pragma once
#include <utility>

#include "Kiv/Entity.h"
#include "Kiv/IndexedMap.h"

namespace Kiv {

namespace detail {
struct Restoring;
}

/// Values of an entity by key, in the order of the keys: `block("a")` reads, in constant time;
/// `block.is("a", 3)` and `block.del("a")` change and notify with the key. Keys order, compare and
/// hash.
///
/// A member of its entity: `Kiv::Collection<Kiv::String, U32> block{*this, &Notifiee::onBlock};`.
/// After a notification the entity may be gone, see Attribute::is().
template <typename K, typename V>
class Collection final : private EntityPart {
 public:
  /// In the order of the keys.
  using Map = typename detail::IndexedMap<K, V>::Map;

  /// A part of `owner`; with a reaction, its notifiees hear of each key that changes.
  explicit Collection(Entity& owner) : EntityPart(owner) {}
  template <typename N>
  Collection(Entity& owner, void (N::*reaction)(K const&))
      : EntityPart(owner), reaction_(static_cast<Reaction>(reaction)) {}

  /// The key's value, or V() where there is none.
  V operator()(K const& key) const {
    V const* const held = entries_.find(key);
    return held == nullptr ? V() : *held;
  }
  /// Whether the key has a value.
  bool has(K const& key) const { return entries_.find(key) != nullptr; }
  /// All of them; valid until the next change.
  Map const& all() const { return entries_.ordered(); }

  /// Adds or replaces; notifies unless the same value was there.
  void is(K const& key, V value) {
    if (V* const held = entries_.find(key)) {
      if (*held == value) return;
      *held = std::move(value);
    } else {
      entries_.add(key, std::move(value));
    }
    _changed(key);
  }

  /// Removes, notifies, and returns what was there; V(), without notification, if nothing was.
  V del(K const& key) {
    auto entry = entries_.take(key);
    if (entry.empty()) return V();
    _changed(entry.key());
    return std::move(entry.mapped());
  }

  /// Removes all, then notifies of each key, in order.
  void delAll() {
    detail::IndexedMap<K, V> removed;
    entries_.swap(removed);
    for (auto const& entry : removed.ordered()) {
      if (!_changed(entry.first)) return;
    }
  }

 private:
  friend struct detail::Restoring;
  using Reaction = void (Entity::Notifiee::*)(K const&);
  struct Change {
    Reaction reaction;
    K key;  // a copy: the caller's may be that of an entry which a reaction removes
  };

  bool _changed(K const& key) const {
    if (reaction_ == nullptr) return true;
    Change const change{reaction_, key};
    return _notify(
        [](PtrInterface::NotifieeConst& notifiee, void const* context) {
          auto const& what = *static_cast<Change const*>(context);
          (static_cast<Entity::Notifiee&>(notifiee).*what.reaction)(what.key);
        },
        &change);
  }

  Reaction reaction_ = nullptr;
  detail::IndexedMap<K, V> entries_;
};

}  // namespace Kiv
