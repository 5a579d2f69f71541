#pragma once
#include <memory>
#include <string>

#include "Kiv/Attribute.h"
#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/String.h"
#include "Veltro/Export.h"

namespace Mem {
class RootPath;
}

namespace Veltro {

/// A directory in which a process keeps files that others find by name: root/prefix/dirName,
/// joined with single slashes. An entity over a Mem::RootPath, whose rules it passes on: how the
/// path is joined, what is valid, modes, links (Mem/RootPath.h).
///
/// Reports nothing itself: what fails is told at level 1 of the handler "RootPath", and an
/// unusable path shows as initialized() staying false. Destroying it removes nothing; cleanup()
/// does. One thread's; nothing is locked.
class VELTRO_API RootPathBase : public Kiv::Entity {
 public:
  /// Reactor to a change; derive from it. Keeps the entity alive.
  class VELTRO_API Notifiee : public Kiv::NotifieeOf<RootPathBase> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onInitialized() {}
  };

  /// `root` is absolute; `prefix` and `dirName` may hold several components; none is "..". With
  /// `create` the directory is made at once, and one that cannot be made is not valid.
  RootPathBase(Kiv::String root, Kiv::String prefix, Kiv::String dirName, bool create);

  /// The parts of the path, as they were given.
  Kiv::String root() const { return root_(); }
  Kiv::String prefix() const { return prefix_(); }
  Kiv::String dirName() const { return dirName_(); }
  bool create() const { return create_(); }
  /// The path is valid; with create(), the directory was made.
  bool initialized() const { return initialized_(); }

  // The operations throw AssertException after handleDestruction().

  /// Makes the directory and all its missing parents. True when it is there afterwards.
  bool doCreate();
  /// Removes one file in the directory; a missing one counts as removed. "" and names with a
  /// slash are refused.
  bool removeFile(Kiv::String filename);
  /// Removes all that is in the directory, the directory, and its parents below root and prefix
  /// as far as they are empty. True when the directory is gone.
  bool cleanup();
  /// The path of a file in the directory; "" gives the directory's own.
  Kiv::String fullPath(Kiv::String filename) const;
  /// Whether the directory is there.
  bool exists() const;

  /// Run by the constructor. Does nothing once initialized; else tries once more with a new
  /// platform object in place of the old one.
  void handleInitialized();
  /// Run by the destructor. Lets the platform object go.
  void handleDestruction();

  Kiv::Model const& model() const override { return table(); }
  static Kiv::Model const& table();

 protected:
  ~RootPathBase() override;

 private:
  Mem::RootPath& _platform() const;

  Kiv::Attribute<Kiv::String> root_;
  Kiv::Attribute<Kiv::String> prefix_;
  Kiv::Attribute<Kiv::String> dirName_;
  Kiv::Attribute<bool> create_;
  Kiv::Attribute<bool> initialized_{*this, &Notifiee::onInitialized};
  std::unique_ptr<Mem::RootPath> platform_;
};

/// The root path used throughout the library: "/var/shmem", prefix "shmem".
class VELTRO_API RootPath final : public RootPathBase {
 public:
  /// RootPathBase() below that root and prefix.
  RootPath(Kiv::String dirName, bool create);

  Kiv::Model const& model() const override { return table(); }
  static Kiv::Model const& table();

 private:
  ~RootPath() override;
};

/// Make the entity. No memory: Kiv::RangeException("null ValidPtr").
VELTRO_API Kiv::Ptr<RootPathBase> rootPathBaseFactory(Kiv::String root, Kiv::String prefix,
                                                      Kiv::String dirName, bool create);
VELTRO_API Kiv::Ptr<RootPath> rootPathFactory(Kiv::String dirName, bool create);

}  // namespace Veltro
