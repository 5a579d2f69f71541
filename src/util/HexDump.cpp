#include "Veltro/UtilCpp.h"

namespace Veltro {

std::string dumpHex(void const* data, int length) {
  constexpr char const* kDigits = "0123456789abcdef";
  auto const* const bytes = static_cast<unsigned char const*>(data);
  std::string result;
  for (int i = 0; i < length; ++i) {
    if (i > 0 && i % 4 == 0) result += ' ';
    result += kDigits[bytes[i] >> 4];
    result += kDigits[bytes[i] & 0xf];
  }
  return result;
}

}  // namespace Veltro
