#pragma once
#include <cstdint>

namespace Kiv {
/// Fixed-width integers, the same in both builds: what a mapped file or an interface carries.
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using S32 = std::int32_t;
using S64 = std::int64_t;
}  // namespace Kiv
