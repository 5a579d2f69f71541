#include "Veltro/Debug.h"
#include "Veltro/Exception.h"

namespace Veltro {

void debugAndThrowAssertException(Platform::DebugHandler* handler, unsigned level,
                                  Platform::DebugStream& stream, char const* file,
                                  char const* function, int line) {
  Platform::DebugStream record;
  // A null name puts the stream into its failed state: the record ends there.
  record << file << ":" << function << ":" << line << ": " << stream.str();
  if (handler != nullptr && handler->levelEnabled(level)) {
    handler->dump(record, level, file, line, function);
  }
  AssertException::throwException(record.str());
}

void debugAndThrowAssertException(Platform::DebugHandler& handler, unsigned level,
                                  Platform::DebugStream& stream, char const* file,
                                  char const* function, int line) {
  debugAndThrowAssertException(&handler, level, stream, file, function, line);
}

}  // namespace Veltro
