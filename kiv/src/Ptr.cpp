#include "Kiv/Ptr.h"

#include "Kiv/Exception.h"
#include "Notification.h"

namespace Kiv {

PtrInterface::~PtrInterface() = default;

void PtrInterface::referencesDec() const {
  if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    const_cast<PtrInterface*>(this)->onZeroReferences();
  }
}

void PtrInterface::onZeroReferences() { delete this; }

PtrInterface::NotifieeConst::~NotifieeConst() = default;

void PtrInterface::NotifieeConst::onNotificationException() { Notification::unansweredIs(); }

void throwNullValidPtr() { throw RangeException("null ValidPtr"); }

}  // namespace Kiv
