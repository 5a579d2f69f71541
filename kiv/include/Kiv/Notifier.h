#pragma once
#include <vector>

#include "Kiv/Export.h"
#include "Kiv/Ptr.h"

namespace Kiv {

/// Tells its notifiees of a change, in the order in which they joined.
///
/// Any notifiee may leave or be destroyed during a walk, the one being called too, and so may the
/// notifier itself; one that leaves is not called any more, one that joins hears of the next
/// change. Walks nest. Borrows its notifiees, which leave before they die. One thread's.
class KIV_API Notifier final {
 public:
  /// Calls one notifiee's reaction; `context` is what was given to notify().
  using Call = void (*)(PtrInterface::NotifieeConst& notifiee, void const* context);

  Notifier() = default;
  ~Notifier();
  Notifier(Notifier const&) = delete;
  Notifier& operator=(Notifier const&) = delete;

  /// Joins, behind all others.
  void notifieeIs(PtrInterface::NotifieeConst& notifiee);
  /// Leaves; one that never joined is no error.
  void notifieeDel(PtrInterface::NotifieeConst& notifiee);

  /// Whether nobody is registered.
  bool empty() const { return notifiees_.empty(); }
  /// Calls each; false when the notifier was destroyed on the way: touch nothing of its owner
  /// then. An exception is offered to the notifiee that threw it. The first one left unanswered
  /// is thrown when all the others have been told.
  bool notify(Call call, void const* context);

 private:
  class Walk;
  std::vector<PtrInterface::NotifieeConst*> notifiees_;  // null: left during a walk
  Walk* innermost_ = nullptr;
};

}  // namespace Kiv
