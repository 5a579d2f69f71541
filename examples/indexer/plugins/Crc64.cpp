// CRC-64 with the polynomial of ECMA-182, low bit first, complemented at both ends.
#include <array>

#include "../HashPlugin.h"

namespace {

std::array<std::uint64_t, 256> makeTable() {
  std::array<std::uint64_t, 256> table{};
  for (std::size_t byte = 0; byte < table.size(); ++byte) {
    std::uint64_t rest = byte;
    for (int bit = 0; bit < 8; ++bit) {
      rest = (rest >> 1) ^ ((rest & 1) != 0 ? 0xc96c5795d7870f42u : 0);
    }
    table[byte] = rest;
  }
  return table;
}

struct Crc64 final : Indexer::HashPlugin {
  Crc64() { Veltro::Platform::registerPlugin(this); }
  char const* name() override { return "IndexerHash-crc64"; }
  std::uint64_t start() const override { return 0; }
  std::uint64_t hashOn(std::uint64_t hash, unsigned char const* bytes,
                       std::size_t length) const override {
    hash = ~hash;
    for (std::size_t i = 0; i < length; ++i) {
      hash = table_[(hash ^ bytes[i]) & 0xff] ^ (hash >> 8);
    }
    return ~hash;
  }

 private:
  std::array<std::uint64_t, 256> const table_ = makeTable();
} crc64;

}  // namespace
