#include "Veltro/UtilCpp.h"

namespace Veltro {
namespace {

/// `signed char` by name: plain char is unsigned on other targets.
template <typename Word>
Word fnv1a(void const* bytes, std::size_t length, Word start, Word prime) {
  auto const* const first = static_cast<signed char const*>(bytes);
  Word result = start;
  for (std::size_t i = 0; i < length; ++i) result = (result ^ static_cast<Word>(first[i])) * prime;
  return result;
}

}  // namespace

U32 Util::hash(void const* bytes, std::size_t length) {
  return fnv1a<U32>(bytes, length, 0x811c9dc5u, 16777619u);
}

U32 Util::hash(std::string const& text) { return hash(text.data(), text.size()); }

U64 Util::hash64(void const* bytes, std::size_t length) {
  return fnv1a<U64>(bytes, length, 0xcbf29ce484222325u, 0x100000001b3u);
}

U64 Util::hash64(std::string const& text) { return hash64(text.data(), text.size()); }

}  // namespace Veltro
