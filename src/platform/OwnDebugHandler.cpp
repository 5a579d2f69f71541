#include "platform/OwnDebugHandler.h"

namespace Veltro {

Platform::DebugHandler* const ownHandler = Platform::getDebugHandler("KivVeltro");

}  // namespace Veltro
