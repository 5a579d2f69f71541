#include "Kiv/Entity.h"

#include <utility>

namespace Kiv {

Entity::~Entity() = default;

void Entity::handleRestored() {}

Entity::Notifiee::Notifiee(Ptr<Entity> entity) : entity_(std::move(entity)) {
  if (!entity_) throwNullValidPtr();
  entity_->notifier_.notifieeIs(*this);
}

Entity::Notifiee::~Notifiee() { entity_->notifier_.notifieeDel(*this); }

}  // namespace Kiv
