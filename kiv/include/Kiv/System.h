#pragma once
#include "Kiv/Export.h"

namespace Kiv {

/// Running the process's loop. All of it belongs to one thread, the main one by convention.
class KIV_API System final {
 public:
  /// Runs until nothing is armed and nobody waits for a descriptor, until the execution time is
  /// over, or until doStop(): 0. Called from inside a run: -1 at once; that holds in a child
  /// forked by a reaction too, until it has left the run that it was born in. An exception that
  /// a notifiee left unanswered leaves doRun; the next run goes on with what was not delivered.
  /// Without the kernel's means (no descriptor left for the epoll set): ErrnoException.
  ///
  /// One pass:
  ///  1. wait for a descriptor or a deadline, if nothing is due, and take the time;
  ///  2. take the batch of notifiees due, by deadline, then by order of arming;
  ///  3. call onTime() once for each of the batch;
  ///  4. ask the kernel for ready descriptors, unless the wait has asked, and take the time;
  ///  5. count and notify each ready descriptor whose interest still stands.
  /// While zero delays keep passes busy, step 4 is done at bounded intervals only: see the bound in
  /// the library's README. What is due when the execution time ends is delivered.
  static int doRun();
  /// Ends the run after the present reaction, or the next run as it starts.
  static void doStop();
  /// Seconds: a monotonic clock plus the virtual offset. Never goes back.
  static double currentTime();
};

}  // namespace Kiv
