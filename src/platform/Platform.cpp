#include "Veltro/Platform.h"

#include <atomic>

#include "Kiv/ActivityManager.h"
#include "Kiv/System.h"
#include "Veltro/Debug.h"
#include "platform/BackgroundFd.h"
#include "platform/KivCallback.h"
#include "platform/KivClockTimer.h"
#include "platform/KivFileDescriptor.h"
#include "platform/LibeventLoop.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/PlatformCpp";
constexpr Platform::DebugHandler* kNoHandler = nullptr;

std::atomic<bool> threadLocalSingletons{false};

// Decided at a thread's first call and never again: its back end may not change under the
// controls that it holds.
bool useThreadLocal() {
  thread_local bool const decision = hasThreadLocalSingletons() && !isMainThread();
  return decision;
}

Kiv::ActivityManager::Config& kivConfig() { return Kiv::ActivityManager::instance().config(); }

}  // namespace

void useThreadLocalSingletons() { threadLocalSingletons.store(true, std::memory_order_relaxed); }

bool hasThreadLocalSingletons() { return threadLocalSingletons.load(std::memory_order_relaxed); }

std::shared_ptr<Platform::TimerControl> Platform::getTimerControl(TimeoutHandler* handler) {
  if (useThreadLocal()) return getLeTimerControl(handler);
  return std::make_shared<KivVeltro::ClockTimer>(handler, kivConfig().clock());
}

std::shared_ptr<Platform::FdControl> Platform::getFdControl(FdEventHandler* handler) {
  if (useThreadLocal()) return getLeFdControl(handler);
  return std::make_shared<KivVeltro::FileDescriptor>(
      handler, Kiv::allocate<Kiv::FileDescriptor>("PlatformFd"));
}

std::shared_ptr<Platform::FdControl> getBackgroundFdControl(Platform::FdEventHandler* handler) {
  if (useThreadLocal()) {
    auto const control = std::make_shared<LibeventFdControl>(handler);
    control->backgroundIs(true);
    return control;
  }
  auto const entity = Kiv::allocate<Kiv::FileDescriptor>("PlatformFd");
  entity->backgroundIs(true);
  return std::make_shared<KivVeltro::FileDescriptor>(handler, entity);
}

bool onTypeSystemLoop() { return !useThreadLocal(); }

std::shared_ptr<Platform::CallbackControl> Platform::getCallbackControl(CallbackHandler* handler) {
  if (useThreadLocal()) return getLeCallbackControl(handler);
  return std::make_shared<KivVeltro::Callback>(handler, kivConfig().clock());
}

int Platform::doEventLoop() { return useThreadLocal() ? doLeEventLoop() : Kiv::System::doRun(); }

int Platform::doEventLoop(double seconds) {
  if (useThreadLocal()) return doLeEventLoop(seconds);
  kivConfig().executionTimeIs(seconds);
  return Kiv::System::doRun();
}

void Platform::setFastForward(bool on) {
  VELTRO_ASSERT(kNoHandler, !useThreadLocal(),
                "ThreadLocal fastForward invoked from non-main thread");
  kivConfig().virtualTimeIs(on);
}

bool Platform::fastForward() {
  VELTRO_ASSERT(kNoHandler, !useThreadLocal(),
                "ThreadLocal fastForward invoked from non-main thread");
  return kivConfig().virtualTime();
}

}  // namespace Veltro
