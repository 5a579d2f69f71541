#pragma once
#include "Kiv/ActivityManager.h"
#include "Kiv/Export.h"
#include "Kiv/Name.h"
#include "Kiv/Ptr.h"
#include "Kiv/Types.h"

namespace Kiv {

/// A descriptor watched by the loop, level-triggered: while it is ready and the interest is on,
/// every look at the descriptors counts it and calls its notifiee.
///
/// Never owns the descriptor and never closes it; take it off (descriptorIs(-1)) before closing.
/// Several entities may watch one descriptor number. Belongs to the thread that runs the loop;
/// may be destroyed or changed from inside any reaction.
class KIV_API FileDescriptor final : public PtrInterface {
 public:
  class Notifiee;

  explicit FileDescriptor(Name name);

  Name name() const { return name_; }
  /// The watched descriptor, -1 when none.
  int descriptor() const { return descriptor_; }
  /// Watches `descriptor` from now on, with the interests that are on; -1 watches none.
  /// One that cannot be watched (closed, a regular file, a directory) throws ErrnoException and
  /// leaves the entity with none.
  void descriptorIs(int descriptor);

  bool nonBlocking() const { return nonBlocking_; }
  /// Puts each descriptor given from now on, and the present one, into non-blocking mode (or
  /// leaves it as it is). A descriptor that refuses throws ErrnoException.
  void nonBlockingIs(bool on);

  bool notifyOnReadable() const { return notifyOnReadable_; }
  bool notifyOnWritable() const { return notifyOnWritable_; }
  /// Interests, both off at first. Hang-up and error count as readable and as writable.
  void notifyOnReadableIs(bool on);
  void notifyOnWritableIs(bool on);

  /// How often it was found readable or writable; wraps at 32 bits.
  U32 readableCount() const { return readableCount_; }
  U32 writableCount() const { return writableCount_; }

 protected:
  ~FileDescriptor() override;

 private:
  friend class Notifiee;
  friend class Loop;
  friend class Poller;
  Name name_;
  int descriptor_ = -1;
  bool nonBlocking_ = false;
  bool notifyOnReadable_ = false;
  bool notifyOnWritable_ = false;
  U32 readableCount_ = 0;
  U32 writableCount_ = 0;
  Notifiee* notifiee_ = nullptr;
  FileDescriptor* nextOfDescriptor_ = nullptr;  // others that watch the same number
};

/// The one reactor of a FileDescriptor.
class KIV_API FileDescriptor::Notifiee : public PtrInterface::NotifieeConst {
 public:
  /// Joins `entity`, which must have no other notifiee (RangeException).
  explicit Notifiee(Ptr<FileDescriptor> entity);
  FileDescriptor& notifier() const { return *notifier_; }

  virtual void onReadableCount() {}
  virtual void onWritableCount() {}

 protected:
  ~Notifiee() override;

 private:
  Ptr<FileDescriptor> notifier_;
};

}  // namespace Kiv
