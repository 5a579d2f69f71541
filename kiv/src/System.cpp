#include "Kiv/System.h"

#include "Loop.h"

namespace Kiv {

int System::doRun() { return Loop::instance().run(); }
void System::doStop() { Loop::instance().stop(); }
double System::currentTime() { return Loop::instance().now(); }

}  // namespace Kiv
