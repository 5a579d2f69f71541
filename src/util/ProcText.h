#pragma once
#include <optional>
#include <string>

#include "Veltro/Platform.h"

// What the kernel's tables say, read off text that may be anything: people choose the names in it.

namespace Veltro::util {

/// What follows `tag` and the blanks after it on the first line that begins with it.
std::optional<std::string> valueAfterTag(std::string const& table, std::string const& tag);

/// A socket's inode, off its line in /proc/net/unix.
struct SocketInode {
  std::string text;  // the field as it stands; empty when there is none
  U32 number = 0;    // 0 when the field is no inode
};
SocketInode socketInode(std::string const& line);

}  // namespace Veltro::util
