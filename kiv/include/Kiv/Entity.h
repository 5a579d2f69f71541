#pragma once
#include "Kiv/Export.h"
#include "Kiv/Notifier.h"
#include "Kiv/Ptr.h"
#include "Kiv/Types.h"

namespace Kiv {

class AttributeLog;
class Model;

/// A counted object whose state is attributes, collections and queues, whose changes arrive as
/// notifications, and which one table (Model.h) describes to reflection and the attribute log.
///
/// Made with allocate<T>(), held by Ptr; its constructor must not make a Ptr to it, which would be
/// the last one when it goes. Used on one thread; nothing is locked. An entity nests a
/// class `Notifiee`, derived from NotifieeOf<T>, with an empty virtual reaction for each change it
/// tells of: `onX()` for the attribute x, `onX(key)` for the collection x.
class KIV_API Entity : public PtrInterface {
 public:
  class Notifiee;
  /// The table of this entity's type.
  virtual Model const& model() const = 0;
  /// How many attributes, collections and queues it has; reflection holds the table to that.
  U32 parts() const { return parts_; }

 protected:
  Entity() = default;
  ~Entity() override;
  /// An attribute log was restored: what it holds is in place, and nobody has been told yet. For
  /// state that follows from what logs keep. What it throws leaves restore() with nobody told.
  virtual void handleRestored();

 private:
  friend class AttributeLog;
  friend class EntityPart;
  Notifier notifier_;
  U32 parts_ = 0;
};

/// What NotifieeOf is made of.
class KIV_API Entity::Notifiee : public PtrInterface::NotifieeConst {
 protected:
  ~Notifiee() override;
  /// The entity, of no particular type.
  Entity& _entity() const { return *entity_; }

 private:
  template <typename T>
  friend class NotifieeOf;
  explicit Notifiee(Ptr<Entity> entity);
  Ptr<Entity> entity_;
};

/// Base of T::Notifiee, the reactor to a T. Joins in its constructor, leaves in its destructor, and
/// keeps the entity alive in between. Derive reactors from T::Notifiee, never from this directly:
/// the entity calls them as such.
/// A reaction may do anything, even destroy the notifiee or let the entity go.
template <typename T>
class NotifieeOf : public Entity::Notifiee {
 public:
  /// A null entity throws RangeException.
  explicit NotifieeOf(Ptr<T> const& entity) : Entity::Notifiee(Ptr<Entity>(entity)) {}
  T& notifier() const { return static_cast<T&>(_entity()); }
};

/// What attributes, collections and queues have in common: the entity they are members of.
class KIV_API EntityPart {
 public:
  EntityPart(EntityPart const&) = delete;
  EntityPart& operator=(EntityPart const&) = delete;

 protected:
  /// A member of `owner`.
  explicit EntityPart(Entity& owner) : owner_(owner) { ++owner.parts_; }
  ~EntityPart() = default;
  /// False when the entity has gone with its notification.
  bool _notify(Notifier::Call call, void const* context) const {
    return owner_.notifier_.empty() || owner_.notifier_.notify(call, context);
  }

 private:
  Entity& owner_;
};

}  // namespace Kiv
