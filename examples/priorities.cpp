// Five priorities. The most urgent task that is queued runs next; high and normal still leave a
// weighted share to the ones below, so that nothing but scavenge waits for ever.
//
// Prints:
//   absolute
//   high
//   normal
//   low
//   scavenge
#include <cstdio>
#include <memory>
#include <vector>

#include "Veltro/TaskSchedulerCpp.h"

namespace {

class Speaker final : public Veltro::Task {
 public:
  explicit Speaker(Veltro::TaskPriority priority)
      : Task(Veltro::schedulerRootVeltro(), priority, priority.toStrep()) {}

 private:
  void taskExecute() override { std::printf("%s\n", taskName().c_str()); }
};

}  // namespace

int main() {
  using Veltro::TaskPriority;
  std::vector<std::shared_ptr<Speaker>> speakers;
  for (TaskPriority const priority :
       {TaskPriority::scavenge, TaskPriority::low, TaskPriority::normal, TaskPriority::high,
        TaskPriority::absolute}) {
    speakers.push_back(std::make_shared<Speaker>(priority));
    speakers.back()->scheduleTask();  // queued only: tasks run from the event loop
  }
  return Veltro::Platform::doEventLoop();
}
