#pragma once
#include <sys/epoll.h>

#include <array>
#include <vector>

#include "Kiv/FileDescriptor.h"
#include "Reaction.h"

namespace Kiv {

/// The kernel's view of the watched descriptors: an epoll set, level-triggered.
///
/// A descriptor number has a slot with the entities that watch it; the kernel is asked for the
/// union of their interests, and not at all when the union is empty (the kernel would report a
/// hang-up for ever). Changes reach the kernel at once, so that refusals are seen where they
/// are caused.
///
/// The set is made on first use, and anew where this one cannot be used: in a forked child,
/// which would share it with its parent; after somebody closed it by closing all descriptors;
/// and when it holds a registration that cannot be taken off, because the number was closed
/// while a duplicate keeps the file open.
class Poller final {
 public:
  Poller();

  /// True while the kernel is asked for anything.
  bool watching() const { return watched_ != 0; }
  /// The same, without the background ones.
  bool keepsRunning() const { return watched_ != background_; }
  /// The entity, which watches nothing yet, joins `descriptor`. Throws ErrnoException.
  void watch(FileDescriptor& entity, int descriptor);
  /// The entity leaves its descriptor; nothing if it has none.
  void unwatch(FileDescriptor& entity);
  /// The interests of an entity of this descriptor have changed. 0, or what the kernel says.
  int interestsChanged(int descriptor);

  /// Looks which descriptors are ready, waiting no longer than `seconds` (0: not at all;
  /// infinite: until one is). False when none is. With nothing watched it needs no set.
  bool look(double seconds);
  /// True when the latest look found something that was not served since.
  bool ready() const { return ready_ != 0; }
  U32 readyCount() const { return ready_; }
  /// Counts and notifies what the latest look found, until `stop`. What an exception or a stop
  /// has cut off comes first after the next look, so that nobody starves.
  void serve(Reaction& reaction, bool const& stop);

 private:
  struct Slot {
    FileDescriptor* first = nullptr;
    U32 mask = 0;  // what the kernel is asked for; 0: it does not know the descriptor
    bool background = false;
    U32 registration = 0;  // tells events of this registration from those of an earlier file
  };
  Slot& _slot(int descriptor) { return slots_[static_cast<U32>(descriptor)]; }
  U32 _union(int descriptor) const;
  int _probe(int descriptor) const;
  int _control(int descriptor, U32 mask);
  int _register(int descriptor, U32 mask);
  void _unregister(int descriptor);
  void _maskIs(int descriptor, U32 mask);
  int _ensureSet();
  int _renewSet();
  int _waitForEvents(double seconds);
  void _serveEvent(::epoll_event const& event, Reaction& reaction);
  void _notify(FileDescriptor& entity, bool readable, bool writable, Reaction& reaction);

  std::vector<Slot> slots_;  // by descriptor number
  U32 watched_ = 0;
  U32 background_ = 0;  // of those
  U32 registrations_ = 0;
  int set_ = -1;
  U32 forks_ = 0;  // as of when the set was made

  // More than this many ready at once are served by several looks; the kernel takes turns.
  std::array<::epoll_event, 256> events_{};
  U32 ready_ = 0;
  U32 turn_ = 0;  // events of the latest look that were served, while some were not
  U32 looks_ = 0;
  U32 changes_ = 0;                   // in what the kernel is asked for, since the latest look
  FileDescriptor* cursor_ = nullptr;  // the next to be notified of those of one number
};

}  // namespace Kiv
