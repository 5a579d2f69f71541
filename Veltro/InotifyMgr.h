#pragma once
#include <iosfwd>
#include <map>

#include "Kiv/Attribute.h"
#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/String.h"
#include "Kiv/Types.h"
#include "Kiv/Value.h"
#include "Veltro/Platform.h"

namespace Veltro {

class InotifyWatcherHelper;

/// Watches one file or directory, and counts what happens to it.
///
///     struct Reload final : Veltro::InotifyWatcher::Notifiee {
///       using Notifiee::Notifiee;
///       void onEventCount() override { reload(notifier().event()); }
///     };
///     auto reload = Kiv::allocate<Reload>(Veltro::inotifyWatcherFactory("/etc/agent",
///     IN_CLOSE_WRITE));
///
/// Watching lasts as long as the entity: as long as somebody holds a Ptr, or a notifiee of it.
/// Events come through the type system's loop, on the thread of the process's first watch; make,
/// read and drop watchers on that thread. Nothing is locked.
///
/// eventCount() says how many events there were; event() and eventMask() describe the last one
/// only. Between two reactions several may have come: compare counts where each one matters.
/// When the kernel drops events the mask holds IN_Q_OVERFLOW: look at everything anew. IN_IGNORED
/// ends the watch (the file is gone): drop the entity and make another.
class VELTRO_API InotifyWatcher final : public Kiv::Entity {
 public:
  /// Reactor to changes; derive from it. A reaction may do anything: make watchers, drop this
  /// one, throw (the exception leaves the loop's run after the other events were delivered).
  class VELTRO_API Notifiee : public Kiv::NotifieeOf<InotifyWatcher> {
   public:
    using NotifieeOf::NotifieeOf;
    /// The attribute of that name has changed.
    virtual void onEventCount() {}
    virtual void onInitialized() {}
    virtual void onInotifyWatcherHelper() {}
  };

  /// `mask` holds the kernel's IN_ bits. A path that cannot be watched throws
  /// InvalidInitializeException.
  InotifyWatcher(Kiv::String path, U32 mask);

  /// What is watched, and for which IN_ bits.
  Kiv::String path() const { return path_(); }
  U32 mask() const { return mask_(); }
  /// The name that came with the last event: of the entry of a watched directory, else "".
  Kiv::String event() const { return event_(); }
  /// The IN_ bits of the last event.
  U32 eventMask() const { return eventMask_(); }
  /// Owned; null after handleDestruction().
  InotifyWatcherHelper* inotifyWatcherHelper() const { return inotifyWatcherHelper_(); }
  /// Wraps at 32 bits.
  U32 eventCount() const { return eventCount_(); }
  bool initialized() const { return initialized_(); }

  /// What the helper does for each event, in this order; the count notifies.
  void eventIs(Kiv::String event) { event_.is(event); }
  void eventMaskIs(U32 mask) { eventMask_.is(mask); }
  /// Adds, notifies when that changed the count, and returns it.
  U32 eventCountInc(U32 n);

  /// Run by the constructor; does nothing once initialized.
  void handleInitialized();
  /// Run by the destructor; ends the watch.
  void handleDestruction();

  Kiv::Model const& model() const override { return table(); }
  static Kiv::Model const& table();

 private:
  ~InotifyWatcher() override;

  Kiv::Attribute<Kiv::String> path_;
  Kiv::Attribute<U32> mask_;
  Kiv::Attribute<Kiv::String> event_{*this};
  Kiv::Attribute<U32> eventMask_{*this};
  Kiv::Attribute<InotifyWatcherHelper*> inotifyWatcherHelper_{*this,
                                                              &Notifiee::onInotifyWatcherHelper};
  Kiv::Attribute<U32> eventCount_{*this, &Notifiee::onEventCount};
  Kiv::Attribute<bool> initialized_{*this, &Notifiee::onInitialized};
};

/// No memory: Kiv::RangeException("null ValidPtr").
VELTRO_API Kiv::Ptr<InotifyWatcher> inotifyWatcherFactory(Kiv::String path, U32 mask);

/// One who watches, as InotifyMgr shows it: the class of the watching object, and its IN_ bits.
class VELTRO_API Watcher final {
 public:
  Watcher() = default;
  /// A class name and IN_ bits.
  Watcher(Kiv::String type, U32 mask) : type_(type), mask_(mask) {}
  /// Reads text() back; anything else throws Kiv::RangeException.
  explicit Watcher(Kiv::String const& form);

  /// The class of the watching object.
  Kiv::String const& type() const { return type_; }
  void typeIs(Kiv::String const& type) { type_ = type; }
  /// The IN_ bits that it asked for.
  U32 mask() const { return mask_; }
  void maskIs(U32 mask) { mask_ = mask; }

  /// "Value('Veltro::Watcher', ** {'type': 'a type', 'mask': 2})"
  Kiv::String text() const;
  static Kiv::Model const& model();
  friend bool operator==(Watcher const& a, Watcher const& b) {
    return a.type_ == b.type_ && a.mask_ == b.mask_;
  }
  friend bool operator!=(Watcher const& a, Watcher const& b) { return !(a == b); }

 private:
  Kiv::String type_;
  U32 mask_ = 0;
};

/// One of the kernel's watches, and who shares it.
class VELTRO_API WatchDescriptor final {
 public:
  WatchDescriptor() = default;
  /// A path and the kernel's number for it, without watchers.
  WatchDescriptor(Kiv::String name, Kiv::S32 wd) : name_(name), wd_(wd) {}
  /// Ends the process: what holds a collection is not read back.
  explicit WatchDescriptor(Kiv::String const& form);

  /// The watched path.
  Kiv::String const& name() const { return name_; }
  void nameIs(Kiv::String const& name) { name_ = name; }
  /// The kernel's number.
  Kiv::S32 wd() const { return wd_; }
  void wdIs(Kiv::S32 wd) { wd_ = wd; }

  /// The key's watcher, or an empty one where there is none.
  Watcher watcher(U32 key) const;
  /// All of them, by key.
  std::map<U32, Watcher> const& watchers() const { return watchers_; }
  /// Adds; a key that is in use throws Kiv::RangeException.
  void newWatcher(U32 key, Watcher const& watcher);
  /// Adds or replaces.
  void watcherIs(U32 key, Watcher const& watcher);
  /// Removes, and returns what was there; an empty one if nothing was.
  Watcher watcherDel(U32 key);
  /// Removes all of them.
  void watcherDelAll() { watchers_.clear(); }

  /// No path, number 0, no watchers: what a number that is not in use gives.
  bool operator!() const { return *this == WatchDescriptor(); }
  /// "Value('Veltro::WatchDescriptor', ** {'name': '/etc', 'wd': 1, 'watcher': None})"
  Kiv::String text() const;
  static Kiv::Model const& model();
  VELTRO_API friend bool operator==(WatchDescriptor const& a, WatchDescriptor const& b);
  friend bool operator!=(WatchDescriptor const& a, WatchDescriptor const& b) { return !(a == b); }

 private:
  Kiv::String name_;
  Kiv::S32 wd_ = 0;
  std::map<U32, Watcher> watchers_;
};

/// The text forms.
VELTRO_API std::ostream& operator<<(std::ostream& os, Watcher const& watcher);
VELTRO_API std::ostream& operator<<(std::ostream& os, WatchDescriptor const& descriptor);

/// The watches of this process, for display: a view of Mem::InotifyMgr's table at the moment of
/// each call. Holds nothing itself; make it when you like. Used on the thread that watches.
class VELTRO_API InotifyMgr final : public Kiv::Entity {
 public:
  InotifyMgr();

  /// Walks the numbers in use, each once, upwards:
  ///     for (auto it = mgr->descriptorIteratorConst(); it; ++it) std::cout << *it << '\n';
  /// Watches may come and go meanwhile; one that has gone under the iterator reads as empty.
  class VELTRO_API DescriptorIteratorConst final {
   public:
    /// False behind the last one.
    explicit operator bool() const { return valid_; }
    /// On to the next number in use.
    DescriptorIteratorConst& operator++();
    /// The number it stands at.
    Kiv::S32 key() const { return wd_; }
    WatchDescriptor operator*() const;

   private:
    friend class InotifyMgr;
    explicit DescriptorIteratorConst(Kiv::S32 atLeast);
    Kiv::S32 wd_;
    bool valid_;
  };

  /// What the number stands for; the empty value when it is not in use.
  WatchDescriptor descriptor(int wd) const;
  DescriptorIteratorConst descriptorIteratorConst() const;
  /// Starts at the first number that is not less than `wd`.
  DescriptorIteratorConst descriptorIteratorConst(int wd) const;

  Kiv::Model const& model() const override { return table(); }
  static Kiv::Model const& table();

 private:
  ~InotifyMgr() override;
  std::map<Kiv::S32, WatchDescriptor> _descriptors() const;
};

/// No memory: Kiv::RangeException("null ValidPtr").
VELTRO_API Kiv::Ptr<InotifyMgr> inotifyMgrFactory();

}  // namespace Veltro

/// Shown as a structure, never taken back.
template <>
struct Kiv::ValueType<Veltro::WatchDescriptor> {
  static std::string name() { return detail::typeNameOf(Veltro::WatchDescriptor::model()); }
  static Value of(Veltro::WatchDescriptor const& descriptor) {
    return detail::structureOf(Veltro::WatchDescriptor::model(), &descriptor);
  }
  static Veltro::WatchDescriptor from(Value const& value) {
    return Veltro::WatchDescriptor(String(value.text()));
  }
};
