#pragma once
#include <sys/inotify.h>

#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace Mem {

struct InotifyEvent {
  int wd;
  unsigned mask;
  std::string name;  // "" for the watched file itself
};

/// Takes apart what one read(2) of an inotify descriptor gave. Borrows the bytes. Never looks past
/// their end, whatever the lengths in them say: an event that is cut short ends the buffer.
class InotifyEvents final {
 public:
  explicit InotifyEvents(std::string_view bytes) : rest_(bytes) {}

  std::optional<InotifyEvent> next() {
    inotify_event head;  // copied: the buffer's alignment is not the compiler's knowledge
    if (rest_.size() < sizeof head) return std::nullopt;
    std::memcpy(&head, rest_.data(), sizeof head);
    rest_.remove_prefix(sizeof head);
    if (rest_.size() < head.len) return std::nullopt;
    std::string_view const padded = rest_.substr(0, head.len);  // with zero bytes
    rest_.remove_prefix(head.len);
    return InotifyEvent{head.wd, head.mask, std::string(padded.substr(0, padded.find('\0')))};
  }

 private:
  std::string_view rest_;
};

}  // namespace Mem
