#pragma once
#include "Kiv/Export.h"
#include "Kiv/Name.h"
#include "Kiv/Ptr.h"
#include "Kiv/Types.h"

namespace Kiv {

/// A descriptor watched by the loop, level-triggered: while it is ready and the interest is on,
/// every look at the descriptors counts it and calls its notifiee.
///
/// Never owns the descriptor and never closes it; take it off (descriptorIs(-1)) before closing.
/// Several entities may watch one descriptor number and are called in the order in which they
/// joined it. Belongs to the thread that runs the loop; may be destroyed or changed from inside
/// any reaction.
class KIV_API FileDescriptor final : public PtrInterface {
 public:
  class Notifiee;

  /// Bound to no descriptor, nothing watched.
  explicit FileDescriptor(Name name);

  /// For display.
  Name name() const { return name_; }
  /// The watched descriptor, -1 when none.
  int descriptor() const { return descriptor_; }
  /// Watches `descriptor` from now on, with the interests that are on; -1 watches none. The
  /// number that is watched already is looked up afresh: it may belong to another file by now.
  /// One that cannot be watched (closed, a regular file, a directory) throws ErrnoException and
  /// leaves the entity with none.
  void descriptorIs(int descriptor);

  /// As last set.
  bool nonBlocking() const { return nonBlocking_; }
  /// Puts each descriptor given from now on, and the present one, into non-blocking mode (or
  /// leaves it as it is). A descriptor that refuses throws ErrnoException.
  void nonBlockingIs(bool on);

  /// A background descriptor is served like any other, but does not keep the loop running, and
  /// while nothing else is watched a busy loop looks at it once a millisecond only. For those who
  /// watch the process from outside. Set it before descriptorIs(), for a number of its own.
  bool background() const { return background_; }
  void backgroundIs(bool background) { background_ = background; }

  /// As last set.
  bool notifyOnReadable() const { return notifyOnReadable_; }
  bool notifyOnWritable() const { return notifyOnWritable_; }
  /// Interests, both off at first. Hang-up and error count as readable and as writable; with
  /// both interests off nothing is asked of the kernel, so that a peer that has gone costs
  /// nothing. Switching on what the kernel refuses (the descriptor was closed) throws
  /// ErrnoException and leaves the interest off; switching off never throws.
  void notifyOnReadableIs(bool on);
  void notifyOnWritableIs(bool on);

  /// How often it was found readable or writable; wraps at 32 bits.
  U32 readableCount() const { return readableCount_; }
  U32 writableCount() const { return writableCount_; }

 protected:
  ~FileDescriptor() override;

 private:
  friend class Poller;
  void _interestIs(bool FileDescriptor::*interest, bool on);
  void _makeNonBlocking(int descriptor) const;
  U32 _interests() const;

  Name const name_;
  int descriptor_ = -1;
  bool nonBlocking_ = false;
  bool background_ = false;
  bool notifyOnReadable_ = false;
  bool notifyOnWritable_ = false;
  U32 readableCount_ = 0;
  U32 writableCount_ = 0;
  Notifiee* notifiee_ = nullptr;
  FileDescriptor* nextOfDescriptor_ = nullptr;  // others that watch the same number
  U32 joinedAt_ = 0;  // the look that was the latest one when it joined its number
};

/// The one reactor of a FileDescriptor. One whose last reference goes while its reaction runs is
/// destroyed after it.
class KIV_API FileDescriptor::Notifiee : public PtrInterface::NotifieeConst {
 public:
  /// Joins `entity`, which must have no other notifiee (RangeException).
  explicit Notifiee(Ptr<FileDescriptor> entity);
  FileDescriptor& notifier() const { return *notifier_; }

  /// The count has gone up by one.
  virtual void onReadableCount() {}
  virtual void onWritableCount() {}

 protected:
  ~Notifiee() override;
  void onZeroReferences() override;

 private:
  Ptr<FileDescriptor> const notifier_;
};

}  // namespace Kiv
