#include "platform/OwnDebugHandler.h"

namespace Veltro {
namespace {

[[maybe_unused]] Platform::DebugHandler& atLoad = ownDebugHandler();

}  // namespace
}  // namespace Veltro
