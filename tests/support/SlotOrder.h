#pragma once
#include <cstdint>
#include <cstring>
#include <vector>

namespace Veltro {

/// The place of a virtual member in its class's table; a destructor takes two. A pointer to a
/// virtual member holds one more than the offset.
template <typename Member>
std::size_t slotOf(Member member) {
  std::uintptr_t offset = 0;
  std::memcpy(&offset, &member, sizeof offset);
  return (offset - 1) / sizeof(void*);
}

template <typename... Members>
std::vector<std::size_t> slotsOf(Members... members) {
  return {slotOf(members)...};
}

}  // namespace Veltro
