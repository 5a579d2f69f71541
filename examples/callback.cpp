// A callback is "soon, but not from inside this call": the way to answer a caller without calling
// back into it, and to do once what was asked for many times.
//
// Prints:
//   changed a
//   changed b
//   saved 2 changes
#include <cstdio>
#include <memory>

#include "Veltro/Platform.h"

namespace {

class Settings final : private Veltro::Platform::CallbackHandler {
 public:
  Settings() : save_(Veltro::Platform::getCallbackControl(this)) {}

  void changed(char const* name) {
    std::printf("changed %s\n", name);
    ++changes_;
    save_->requestCallback();  // a second request while one is pending adds none
  }

 private:
  void callback() override {
    std::printf("saved %d changes\n", changes_);
    changes_ = 0;
  }

  int changes_ = 0;
  std::shared_ptr<Veltro::Platform::CallbackControl> const save_;
};

}  // namespace

int main() {
  Settings settings;
  settings.changed("a");
  settings.changed("b");
  return Veltro::Platform::doEventLoop();
}
