#include <limits>

#include "platform/LibeventLoop.h"

namespace Veltro {
namespace {
constexpr char const* kSourceFile = "Veltro/LibeventFactoryCpp";
}  // namespace

LibeventCallbackControl::LibeventCallbackControl(Platform::CallbackHandler* handler)
    : LibeventTimerControl(this), handler_(handler) {}

// One that is pending keeps its place: asking again neither adds a call nor puts it off.
void LibeventCallbackControl::requestCallback() {
  if (!armed()) setTimeout(0.0);
}

void LibeventCallbackControl::cancelCallback() { delTimeout(); }

bool LibeventCallbackControl::pendingCallback() const {
  return !(remainingTimeout() > std::numeric_limits<double>::max());
}

void LibeventCallbackControl::timeout() {
  Platform::CallbackHandler* const handler = handler_;
  bool const* const gone = goneFlag();  // of this object, perhaps, after the call
  bool const handled = catching([=] { handler->callback(); },
                                [=] {
                                  if (*gone || !handler->handleCallbackException()) throw;
                                });
  if (handled) {
    VELTRO_TRACE(libeventDebug(), 9,
                 "LibeventCallbackControl::timeout: Callback notification exception was handled");
  }
}

std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(
    Platform::CallbackHandler* handler) {
  return std::make_shared<LibeventCallbackControl>(handler);
}

}  // namespace Veltro
