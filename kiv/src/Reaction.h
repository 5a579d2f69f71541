#pragma once
#include "Kiv/Ptr.h"
#include "Notification.h"

namespace Kiv {

/// The reaction that the loop has under way, of which there is one at most. Its notifiee may
/// lose its last reference meanwhile, and is then destroyed after the call; or it may be
/// destroyed outright where nobody counts references, and is then not touched again.
class Reaction final {
 public:
  using Notifiee = PtrInterface::NotifieeConst;

  /// Calls `reaction`, a reaction of `notifiee`. `released`: it has no reference any more, and
  /// this call is what it was kept for. True when the notifiee is still there afterwards.
  template <typename F>
  void run(Notifiee& notifiee, bool released, F&& reaction) {
    Call const call(*this, notifiee, released);
    Notification::deliver(notifiee, reaction, [this] { return notifiee_ != nullptr; });
  }

  bool of(Notifiee const& notifiee) const { return notifiee_ == &notifiee; }
  /// For onZeroReferences(): true when the end of the call will see to the deletion.
  bool takesOver(Notifiee const& notifiee) {
    if (!of(notifiee)) return false;
    released_ = true;
    return true;
  }
  /// For the notifiee's destructor.
  void forget(Notifiee const& notifiee) {
    if (of(notifiee)) notifiee_ = nullptr;
  }

 private:
  /// The frame around the call, left by return or by exception.
  class Call final {
   public:
    Call(Reaction& owner, Notifiee& notifiee, bool released) : owner_(owner) {
      owner.notifiee_ = &notifiee;
      owner.released_ = released;
    }
    Call(Call const&) = delete;
    ~Call() {
      Notifiee* const notifiee = owner_.notifiee_;
      owner_.notifiee_ = nullptr;
      if (notifiee != nullptr && owner_.released_) _delete(*notifiee);
    }

   private:
    static void _delete(Notifiee& notifiee) {
      // Unless somebody has taken a new reference. The pair asks for the deletion once more.
      notifiee.referencesInc();
      notifiee.referencesDec();
    }
    Reaction& owner_;
  };

  Notifiee* notifiee_ = nullptr;
  bool released_ = false;
};

}  // namespace Kiv
