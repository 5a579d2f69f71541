#pragma once
#include <functional>
#include <map>
#include <unordered_map>
#include <utility>

namespace Kiv::detail {

/// Values in the order of their keys, and found by the hash of a key: a map, and an index of its
/// entries. Entries stay where they are until they are taken out. What cannot be added for want of
/// memory changes nothing.
template <typename K, typename V>
class IndexedMap final {
 public:
  using Map = std::map<K, V>;

  IndexedMap() = default;
  IndexedMap(IndexedMap const&) = delete;
  IndexedMap& operator=(IndexedMap const&) = delete;

  Map const& ordered() const { return map_; }

  /// The key's value; null where there is none.
  V const* find(K const& key) const {
    auto const at = index_.find(&key);
    return at == index_.end() ? nullptr : &at->second->second;
  }
  V* find(K const& key) { return const_cast<V*>(std::as_const(*this).find(key)); }

  /// False, and nothing is changed, where the key has a value.
  bool add(K const& key, V value) {
    auto const [at, added] = map_.try_emplace(key, std::move(value));
    if (!added) return false;
    try {
      index_.emplace(&at->first, at);
    } catch (...) {
      map_.erase(at);
      throw;
    }
    return true;
  }

  /// The key's entry, now the caller's; empty where there is none.
  typename Map::node_type take(K const& key) {
    auto const at = index_.find(&key);
    if (at == index_.end()) return {};
    auto const entry = at->second;
    index_.erase(at);
    return map_.extract(entry);
  }

  void swap(IndexedMap& other) noexcept {
    map_.swap(other.map_);
    index_.swap(other.index_);
  }

 private:
  struct Hash {
    std::size_t operator()(K const* key) const { return std::hash<K>()(*key); }
  };
  struct Equal {
    bool operator()(K const* a, K const* b) const { return *a == *b; }
  };

  Map map_;
  std::unordered_map<K const*, typename Map::iterator, Hash, Equal> index_;
};

}  // namespace Kiv::detail
