#include "Kiv/Notifier.h"

#include <cxxabi.h>

#include <algorithm>
#include <exception>

#include "Notification.h"

namespace Kiv {

/// Notifiees keep their places while anybody walks; the outermost walk closes the gaps.
class Notifier::Walk {
 public:
  explicit Walk(Notifier& notifier) : notifier_(&notifier), outer_(notifier.innermost_) {
    notifier.innermost_ = this;
  }
  ~Walk() {
    if (notifier_ == nullptr) return;
    notifier_->innermost_ = outer_;
    if (outer_ != nullptr) return;
    auto& all = notifier_->notifiees_;
    all.erase(std::remove(all.begin(), all.end(), nullptr), all.end());
  }
  bool alive() const { return notifier_ != nullptr; }

  /// Tells every walk, from the innermost out, that the notifier is gone.
  static void end(Walk* innermost) {
    for (Walk* walk = innermost; walk != nullptr; walk = walk->outer_) walk->notifier_ = nullptr;
  }

 private:
  Notifier* notifier_;
  Walk* const outer_;
};

Notifier::~Notifier() { Walk::end(innermost_); }

void Notifier::notifieeIs(PtrInterface::NotifieeConst& notifiee) {
  notifiees_.push_back(&notifiee);
}

void Notifier::notifieeDel(PtrInterface::NotifieeConst& notifiee) {
  auto const at = std::find(notifiees_.begin(), notifiees_.end(), &notifiee);
  if (at == notifiees_.end()) return;
  if (innermost_ == nullptr) {
    notifiees_.erase(at);
  } else {
    *at = nullptr;
  }
}

bool Notifier::notify(Call call, void const* context) {
  Walk walk(*this);
  std::exception_ptr unanswered;
  std::size_t const end = notifiees_.size();
  for (std::size_t i = 0; walk.alive() && i < end; ++i) {
    PtrInterface::NotifieeConst* const notifiee = notifiees_[i];
    if (notifiee == nullptr) continue;
    try {
      call(*notifiee, context);
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      // One that left or died while it threw can no longer answer.
      bool const asked = walk.alive() && notifiees_[i] == notifiee;
      bool const answered = asked && Notification::answers(*notifiee);
      if (!answered && unanswered == nullptr) unanswered = std::current_exception();
    }
  }
  if (unanswered != nullptr) std::rethrow_exception(unanswered);
  return walk.alive();
}

}  // namespace Kiv
