#pragma once
#include <string>

#include "Kiv/Entity.h"
#include "Kiv/Export.h"

namespace Kiv {

/// What an entity's table calls logged, as text: to survive a restart.
///
///     Veltro::ShmemMan attribute log 1
///     name = 'mgr'
///     counterKeyToMemBlock['packets in'] = 1
///     counterKeyToMemBlock['packets out'] = 2
///     end 8a3c5b1f00e271d4
///
/// One line a value, in the order of the table and of the keys, so that two logs can be compared
/// by diff; values are written as Value::text(). The number after "end" is a checksum of all
/// before it (64-bit FNV-1a): whoever edits a log by hand leaves it out.
class KIV_API AttributeLog final {
 public:
  /// The log of an entity.
  static std::string text(Entity const& entity);

  /// Sets what the log holds; an attribute or a collection that it does not name stays as it is.
  /// Notifies of what changed, once all of it is in place.
  /// A log that is damaged, cut short or of another type throws RangeException with the number of
  /// the line, and the entity is as it was.
  static void restore(Ptr<Entity> const& entity, std::string const& text);

  /// Replaces the file in one step (written beside it, synced, renamed), so that a crash leaves
  /// the old log or the new one. Failures throw ErrnoException, and the old log stays.
  static void save(Entity const& entity, std::string const& path);
  /// restore() from a file. One that cannot be read throws ErrnoException (ENOENT: no log yet;
  /// EISDIR: a directory; EINVAL: a pipe or device; ENXIO: a socket).
  static void load(Ptr<Entity> const& entity, std::string const& path);
};

}  // namespace Kiv
