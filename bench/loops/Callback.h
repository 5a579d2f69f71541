#pragma once

/// Each loop is an adaptor of one shape, and a workload is a template over it:
///
///     Loop()                          one loop; run() until stop(), which any callback may call
///     Loop::Again<Body>(loop)         again(): Body::called() once, as soon as possible, after
///                                     descriptors have had their turn at least now and then
///     Loop::Timer<Body>(loop)         arm(Delay), one shot: Body::called(); rearm(Delay): the
///                                     loop's cheapest way to move a timer that is armed
///     Loop::Watch<Body>(loop, fd)     Body::ready() while fd is readable
///     Loop::delay(seconds)            a Delay: what the loop's own interface takes
///     Loop::kCachedClock              timers are armed from a reading made earlier
///     Loop::timersCatchUp()           makes that reading, and does what a loop has put off
///
/// A body derives from its callback, so that there is one indirect call and no more.
