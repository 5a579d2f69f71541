#include "Notification.h"

namespace Kiv {
namespace {
thread_local Notification* innermost = nullptr;
}  // namespace

Notification::Notification() : outer_(innermost) { innermost = this; }
Notification::~Notification() { innermost = outer_; }

void Notification::unansweredIs() {
  if (innermost != nullptr) innermost->unanswered_ = true;
}

}  // namespace Kiv
