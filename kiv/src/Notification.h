#pragma once
#include <cxxabi.h>

#include "Kiv/Ptr.h"

namespace Kiv {

/// One call of a reaction, with the rule for what it throws: the notifiee is asked from inside
/// the catch block, and what it leaves unanswered goes on to the caller.
class Notification final {
 public:
  /// A reaction may destroy its notifiee: it is asked only when `alive()` says so after the
  /// throw. Nobody is there to answer for one that is gone.
  template <typename Reaction, typename Alive>
  static void deliver(PtrInterface::NotifieeConst& notifiee, Reaction&& reaction, Alive&& alive) {
    try {
      reaction();
    } catch (abi::__forced_unwind&) {
      throw;  // a thread being cancelled; swallowing it ends the process
    } catch (...) {
      if (!alive() || !answers(notifiee)) throw;
    }
  }

  /// Asks the notifiee, from inside a catch block; false when it leaves the exception unanswered.
  static bool answers(PtrInterface::NotifieeConst& notifiee) {
    Notification notification;
    notifiee.onNotificationException();
    return !notification.unanswered_;
  }

  /// What the default reaction does to the innermost notification; nothing outside of one.
  static void unansweredIs();

 private:
  Notification();
  ~Notification();
  Notification* const outer_;
  bool unanswered_ = false;
};

}  // namespace Kiv
