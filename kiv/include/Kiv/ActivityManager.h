#pragma once
#include <limits>

#include "Kiv/Export.h"
#include "Kiv/Ptr.h"
#include "Kiv/Types.h"

namespace Kiv {

class Loop;  // the dispatcher, private to libkiv

/// The loop's clock: tells its notifiees when their time has come.
/// Times are seconds of System::currentTime(): monotonic, with the virtual offset.
class KIV_API Clock final : public PtrInterface {
 public:
  class Notifiee;

  /// The latest time that anybody took (a pass, currentTime()); needs no clock read.
  double latestTime() const;

 private:
  friend class ActivityManager;
  explicit Clock(Loop& loop) : loop_(loop) {}
  ~Clock() override;
  Loop& loop_;
};

/// One timer. Disarmed until timeMinIs(); fires once per arming and is then disarmed.
///
/// Arming, disarming and firing are O(log n) or better, allocate nothing, and need no system
/// call. Notifiees due in one pass are called in the order of their deadlines, equal deadlines
/// in the order of arming. Belongs to the thread that runs the loop. May be destroyed, disarmed
/// or re-armed from inside any reaction; one whose last reference goes while its call is under
/// way or about to come is destroyed after that call.
class KIV_API Clock::Notifiee : public PtrInterface::NotifieeConst {
 public:
  /// Joins `clock`, disarmed. The only operation here that allocates.
  explicit Notifiee(Ptr<Clock> clock);

  /// Earliest wake-up, positive infinity while disarmed.
  double timeMin() const { return timeMin_; }
  /// Arms for that time, replacing an earlier one. Positive infinity disarms; a time that is not
  /// later than the latest reading, or not a number, is due in the next pass.
  /// Never called early, never in the pass in which it was armed.
  ///
  /// Disarmed while its pass is under way and its call still to come, it is called all the same
  /// and finds timeMin() infinite: so an owner that has gone can be noticed. Armed anew in that
  /// state it waits for its new time and is called once.
  void timeMinIs(double seconds);
  /// Arms for the latest time taken, so for the next pass: what a zero delay means, without a
  /// clock read and at a cost that does not depend on how many others are armed.
  void timeMinIsNow();
  /// Disarms, as timeMinIs(infinity) does.
  void timeMinDel() {
    if (place_ == Place::none) {
      timeMin_ = std::numeric_limits<double>::infinity();
    } else {
      _timeMinDel();
    }
  }

  /// The clock that it joined.
  Clock& clock() const { return *clock_; }

  /// The time has come. timeMin() is still the deadline while this runs, and becomes infinite
  /// on return unless armed anew; reset it first where that matters.
  virtual void onTime() = 0;

 protected:
  ~Notifiee() override;
  void onZeroReferences() override;

 private:
  friend class Loop;
  friend class TimerHeap;
  friend class TimerList;
  friend class TimerQueue;
  /// Where it waits. The two lists take turns at being the due list and the batch.
  enum class Place : unsigned char { none, heap, firstList, secondList };
  void _timeMinDel();

  Ptr<Clock> const clock_;
  double timeMin_ = std::numeric_limits<double>::infinity();
  U64 armed_ = 0;  // order of arming, for equal deadlines
  Notifiee* next_ = nullptr;
  Notifiee* previous_ = nullptr;
  U32 slot_ = 0;  // its number in the heap's tables
  Place place_ = Place::none;
  bool released_ = false;  // without references since it is in the batch
};

/// One pass of the loop: nanoseconds of the real clock.
struct Pass {
  U64 waited;  ///< for a descriptor or a deadline
  U64 worked;  ///< from there to the end of the pass
  U64 lag;     ///< of the first timer called, behind its deadline; 0 when none was due
  U32 calls;   ///< timers called and descriptors found ready
};

/// Told of each pass, for as long as somebody looks: while there is an observer a pass costs some
/// clock reads more, without one a compare. May withdraw itself from inside onPass().
class KIV_API PassObserver {
 public:
  /// A pass has ended.
  virtual void onPass(Pass const& pass) = 0;

 protected:
  ~PassObserver() = default;
};

/// The process's event loop and its configuration. Made on first use, never destroyed. One
/// thread at a time: the main thread's, by convention.
class KIV_API ActivityManager final {
 public:
  /// What the next run shall do.
  class KIV_API Config final {
   public:
    /// The loop's clock.
    Ptr<Clock> clock() const;
    /// How long the next run may last, in seconds of currentTime(); infinite unless set, and
    /// again after each run. A finite one lasts its time even with nothing else to wait for.
    /// Negative or not a number counts as zero.
    void executionTimeIs(double seconds);
    double executionTime() const;
    /// Virtual time: with nothing due and nothing ready the clock jumps to the next deadline, or
    /// to the end of the run. Switched off, time goes on from where it is.
    void virtualTimeIs(bool on);
    bool virtualTime() const;
    /// Borrowed until another, or null, takes its place.
    void passObserverIs(PassObserver* observer);
    PassObserver* passObserver() const;

   private:
    friend class ActivityManager;
    explicit Config(Loop& loop) : loop_(loop) {}
    Loop& loop_;
  };

  /// The process's one.
  static ActivityManager& instance();
  /// Its configuration.
  Config& config() { return config_; }

 private:
  ActivityManager();
  Config config_;
  Ptr<Clock> const clock_;
};

}  // namespace Kiv
