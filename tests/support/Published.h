#pragma once
#include <string>

#include "Kiv/AttributeLog.h"
#include "Veltro/BlockCounter.h"
#include "Veltro/ShmemMan.h"

namespace Veltro {

/// A counter as another process sees it, by the log alone; zeros when there is none.
inline BlockCounter::Sample published(std::string const& log, char const* key) {
  auto const blocks = Kiv::allocate<ShmemMan>("", "", 0u);
  Kiv::AttributeLog::load(blocks, log);
  U64 const block = blocks->counterAddr(key, 64, true);
  if (block == 0) return {0, 0};
  return BlockCounter::sample(reinterpret_cast<void*>(static_cast<std::uintptr_t>(block)))
      .value_or(BlockCounter::Sample{0, 0});
}

}  // namespace Veltro
