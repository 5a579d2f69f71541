#include "Kiv/String.h"

#include <ostream>

namespace Kiv {

std::ostream& operator<<(std::ostream& os, String const& string) {
  return os << string.stdString();
}

}  // namespace Kiv
