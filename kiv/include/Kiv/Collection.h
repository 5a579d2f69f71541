#pragma once
#include <map>
#include <utility>

#include "Kiv/Entity.h"

namespace Kiv {

namespace detail {
struct Restoring;
}

/// Values of an entity by key, in the order of the keys: `block("a")` reads, `block.is("a", 3)`
/// and `block.del("a")` change and notify with the key.
///
/// A member of its entity: `Kiv::Collection<Kiv::String, U32> block{*this, &Notifiee::onBlock};`.
/// After a notification the entity may be gone, see Attribute::is().
template <typename K, typename V>
class Collection final : private EntityPart {
 public:
  /// In the order of the keys.
  using Map = std::map<K, V>;

  /// A part of `owner`; with a reaction, its notifiees hear of each key that changes.
  explicit Collection(Entity& owner) : EntityPart(owner) {}
  template <typename N>
  Collection(Entity& owner, void (N::*reaction)(K const&))
      : EntityPart(owner), reaction_(static_cast<Reaction>(reaction)) {}

  /// The key's value, or V() where there is none.
  V operator()(K const& key) const {
    auto const at = map_.find(key);
    return at == map_.end() ? V() : at->second;
  }
  /// Whether the key has a value.
  bool has(K const& key) const { return map_.find(key) != map_.end(); }
  /// All of them; valid until the next change.
  Map const& all() const { return map_; }

  /// Adds or replaces; notifies unless the same value was there.
  void is(K const& key, V value) {
    auto const [at, added] = map_.try_emplace(key, value);
    if (!added) {
      if (at->second == value) return;
      at->second = std::move(value);
    }
    _changed(key);
  }

  /// Removes, notifies, and returns what was there; V(), without notification, if nothing was.
  V del(K const& key) {
    auto node = map_.extract(key);
    if (node.empty()) return V();
    _changed(node.key());
    return std::move(node.mapped());
  }

  /// Removes all, then notifies of each key, in order.
  void delAll() {
    Map removed;
    map_.swap(removed);
    for (auto const& entry : removed) {
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
  Map map_;
};

}  // namespace Kiv
