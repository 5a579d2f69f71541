#pragma once
#include <memory>

#include "Veltro/TaskSchedulerRoot.h"

namespace Veltro {

/// What goes with a thread's own root from its making to the end of the thread, by the will of a
/// room above this one.
class RootCompanion {
 public:
  virtual ~RootCompanion() = default;
};

/// Asked for each root that schedulerRootVeltro() makes; may answer null. Set while the library is
/// loaded, or never.
extern std::unique_ptr<RootCompanion> (*makeRootCompanion)(TaskSchedulerRoot& root);

}  // namespace Veltro
