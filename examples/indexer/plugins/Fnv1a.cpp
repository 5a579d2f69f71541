// FNV-1a: one multiplication a byte.
#include "../HashPlugin.h"

namespace {

struct Fnv1a final : Indexer::HashPlugin {
  Fnv1a() { Veltro::Platform::registerPlugin(this); }
  char const* name() override { return "IndexerHash-fnv1a"; }
  std::uint64_t start() const override { return 0xcbf29ce484222325u; }
  std::uint64_t hashOn(std::uint64_t hash, unsigned char const* bytes,
                       std::size_t length) const override {
    for (std::size_t i = 0; i < length; ++i) hash = (hash ^ bytes[i]) * 0x100000001b3u;
    return hash;
  }
} fnv1a;

}  // namespace
