#pragma once
#include <cstddef>
#include <functional>
#include <limits>
#include <map>
#include <utility>
#include <vector>

namespace Kiv::detail {

/// Values in the order of their keys, and found by the hash of a key: a map, and a table of its
/// entries that is searched from the key's hash onward. Entries stay where they are until they are
/// taken out. What cannot be added for want of memory changes nothing.
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
    if (map_.empty()) return nullptr;
    Slot const& slot = slots_[_search(_tag(key), key)];
    return slot.tag == kFree ? nullptr : &slot.entry->second;
  }
  V* find(K const& key) { return const_cast<V*>(std::as_const(*this).find(key)); }

  /// False, and nothing is changed, where the key has a value.
  bool add(K const& key, V value) {
    if ((map_.size() + 1) * 4 > slots_.size() * 3) _grow();
    auto const [entry, added] = map_.try_emplace(key, std::move(value));
    if (added) _put(slots_, {_tag(entry->first), entry});
    return added;
  }

  /// The key's entry, now the caller's; empty where there is none.
  typename Map::node_type take(K const& key) {
    if (map_.empty()) return {};
    std::size_t const at = _search(_tag(key), key);
    if (slots_[at].tag == kFree) return {};
    auto const entry = slots_[at].entry;
    _free(at);
    return map_.extract(entry);
  }

  void swap(IndexedMap& other) noexcept {
    map_.swap(other.map_);
    slots_.swap(other.slots_);
  }

 private:
  static constexpr std::size_t kFree = 0;
  struct Slot {
    std::size_t tag = kFree;  // of the entry's key
    typename Map::iterator entry;
  };
  using Slots = std::vector<Slot>;  // none, or a power of two of which some are free

  // The hash with its bits mixed upward, for that of a number is the number itself; never kFree.
  static std::size_t _tag(K const& key) {
    constexpr auto kGoldenRatio = static_cast<std::size_t>(
        0x9E3779B97F4A7C15 >> (64 - std::numeric_limits<std::size_t>::digits));
    std::size_t const mixed = std::hash<K>()(key) * (kGoldenRatio | 1);
    return (mixed ^ (mixed >> (std::numeric_limits<std::size_t>::digits / 2))) | 1;
  }
  // Odd tags: the lowest bit says nothing about the place.
  static std::size_t _home(Slots const& slots, std::size_t tag) {
    return (tag >> 1) & (slots.size() - 1);
  }
  static std::size_t _after(Slots const& slots, std::size_t at) {
    return (at + 1) & (slots.size() - 1);
  }

  // Where the key is, or the free slot at which the search ends.
  std::size_t _search(std::size_t tag, K const& key) const {
    std::size_t at = _home(slots_, tag);
    while (slots_[at].tag != kFree && !(slots_[at].tag == tag && slots_[at].entry->first == key)) {
      at = _after(slots_, at);
    }
    return at;
  }

  static void _put(Slots& slots, Slot slot) {
    std::size_t at = _home(slots, slot.tag);
    while (slots[at].tag != kFree) at = _after(slots, at);
    slots[at] = slot;
  }

  // Those behind move up, so that no search ends before it has come to its key.
  void _free(std::size_t hole) {
    std::size_t const mask = slots_.size() - 1;
    for (std::size_t at = _after(slots_, hole); slots_[at].tag != kFree; at = _after(slots_, at)) {
      std::size_t const home = _home(slots_, slots_[at].tag);
      if (((at - home) & mask) < ((at - hole) & mask)) continue;  // it may not be found before
      slots_[hole] = slots_[at];
      hole = at;
    }
    slots_[hole].tag = kFree;
  }

  void _grow() {
    Slots larger(slots_.empty() ? 8 : slots_.size() * 2);
    for (Slot const& slot : slots_) {
      if (slot.tag != kFree) _put(larger, slot);
    }
    slots_.swap(larger);
  }

  Map map_;
  Slots slots_;
};

}  // namespace Kiv::detail
