#include "SchedDebug.h"
#include "Veltro/IntrusiveLinkedListBase.h"

namespace Veltro {

bool ListImpl::isBookmark(ListLinkNode const& /*node*/) const { return false; }

ListImpl::~ListImpl() {
  while (!Ring::unique(&header_)) _unlink(*ListNodeTraits::get_next(&header_));
}

void ListImpl::_checkFailed(char const* check, char const* file, char const* function, int line) {
  Platform::DebugStream stream;
  stream << check;
  debugAndThrowAssertException(schedDebug(), 0, stream, file, function, line);
}

}  // namespace Veltro
