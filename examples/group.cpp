// A group is one task to the scheduler that it is in, with one priority and one quantum, and a
// scheduler to the tasks in it: a whole activity takes one share, however many tasks it has.
//
// Prints:
//   index a
//   index b
//   index c
//   answer
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "Veltro/TaskSchedulerCpp.h"

namespace {

class Speaker final : public Veltro::Task {
 public:
  Speaker(std::shared_ptr<Veltro::TaskScheduler> scheduler, std::string const& name)
      : Task(std::move(scheduler), Veltro::TaskPriority::normal, name) {
    scheduleTask();
  }

 private:
  void taskExecute() override { std::printf("%s\n", taskName().c_str()); }
};

}  // namespace

int main() {
  auto const root = Veltro::schedulerRootVeltro();
  auto const group =
      Veltro::TaskGroup::TaskGroupIs("indexing", Veltro::TaskPriority::normal, false, root);
  // How long the group may go on before others have their turn; a second is the most.
  group->taskGroupQuantumIs(std::chrono::seconds(1));

  auto const a = std::make_shared<Speaker>(group, "index a");
  auto const answer = std::make_shared<Speaker>(root, "answer");
  auto const b = std::make_shared<Speaker>(group, "index b");
  auto const c = std::make_shared<Speaker>(group, "index c");
  return Veltro::Platform::doEventLoop();
}
