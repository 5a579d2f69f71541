// A descriptor watch calls for as long as the descriptor is ready and the interest is on. The
// descriptor stays yours: take it off the watch before you close it.
//
// Prints:
//   got 'one '
//   got 'two'
//   end of file
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "Veltro/Platform.h"

namespace {

class Reader final : private Veltro::Platform::FdEventHandler {
 public:
  explicit Reader(int fd) : control_(Veltro::Platform::getFdControl(this)) {
    control_->setFd(fd);  // also makes it non-blocking
    control_->setReads(true);
  }

 private:
  void readFdEvent(int fd) override {
    char text[4];
    ssize_t const count = read(fd, text, sizeof text);
    if (count < 0) return;  // nothing after all: the next call will tell
    if (count > 0) {
      // One read a call, so that a busy peer does not starve the others: what is left calls again.
      std::printf("got '%.*s'\n", static_cast<int>(count), text);
      return;
    }
    std::puts("end of file");
    control_->delFd();
    close(fd);
  }
  void writeFdEvent(int /*fd*/) override {}  // never asked for

  std::shared_ptr<Veltro::Platform::FdControl> const control_;
};

}  // namespace

int main() {
  int ends[2];
  if (pipe(ends) != 0) return 1;
  Reader const reader(ends[0]);
  bool const written = write(ends[1], "one two", 7) == 7;
  close(ends[1]);
  return written ? Veltro::Platform::doEventLoop() : 1;  // until nobody watches any more
}
