#include "Veltro/UtilCpp.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "ProcText.h"
#include "ReadFile.h"
#include "Veltro/Debug.h"
#include "Veltro/DirNode.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/UtilCpp";
constexpr char const* kSockets = "/proc/net/unix";

bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// The inode of the first socket whose line contains `name`; 0 when there is none.
U32 readProcNetUnix(Platform::DebugHandler& handler, std::string const& name) {
  util::FileText const file = util::readFile(kSockets);
  if (!file.complete) {
    VELTRO_TRACE(handler, 1, "Util::readProcNetUnix() unable to read " << kSockets);
  }
  std::istringstream lines(file.text);
  for (std::string line; std::getline(lines, line);) {
    VELTRO_TRACE(handler, 7, "Util::readProcNetUnix() " << line);
    if (line.find(name) == std::string::npos) continue;
    util::SocketInode const inode = util::socketInode(line);
    if (inode.number == 0) {
      VELTRO_TRACE(handler, 1,
                   "Util::readProcNetUnix() Couldn't convert inode '" << inode.text << "' to U32.");
    } else {
      VELTRO_TRACE(handler, 5, "Util::readProcNetUnix() sockInode: " << inode.number);
    }
    return inode.number;
  }
  return 0;
}

/// The process that an entry of /proc names; 0 for one that is no process.
U32 processOf(Platform::DebugHandler& handler, char const* entry) {
  if (!isDigit(*entry)) return 0;
  char* end = nullptr;
  errno = 0;
  unsigned long long const number = std::strtoull(entry, &end, 10);
  if (errno == 0 && *end == '\0' && number <= 0xffffffffu) return static_cast<U32>(number);
  VELTRO_TRACE(
      handler, 1,
      "Util::readProcFd() could not convert pid directory string '" << entry << "' to U32");
  return 0;
}

bool isSocket(Platform::DebugHandler& handler, std::string const& path, U32 inode) {
  VELTRO_TRACE(handler, 5, "Util::readProcFd() reading entry " << path);
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    int const error = errno;
    VELTRO_TRACE(handler, 5,
                 "Util::readProcFd() stat failed: " << path << ": " << std::strerror(error));
    return false;
  }
  VELTRO_TRACE(handler, 5, "Util::readProcFd() socket " << path << "'s inode is: " << info.st_ino);
  // Other file systems count their inodes for themselves and may have the number too.
  return info.st_ino == inode && S_ISSOCK(info.st_mode);
}

bool holdsSocket(Platform::DebugHandler& handler, std::string const& process, U32 inode) {
  DirNode const descriptors(handler, "/proc/" + process + "/fd");
  if (!descriptors.isOpen()) return false;  // ended meanwhile, or not ours to see
  while (dirent const* const entry = descriptors.readEntry()) {
    if (!isDigit(entry->d_name[0])) continue;  // "." and ".."
    if (isSocket(handler, descriptors.path() + "/" + entry->d_name, inode)) return true;
  }
  return false;
}

/// The first process in /proc that holds the socket; 0 when there is none.
pid_t readProcFd(Platform::DebugHandler& handler, U32 inode) {
  VELTRO_TRACE(handler, 5, "Util::readProcFd() searching for inode: " << inode);
  DirNode const processes(handler, "/proc");
  if (!processes.isOpen()) {
    VELTRO_TRACE(handler, 1, "Couldn't open /proc");
    return 0;
  }
  while (dirent const* const entry = processes.readEntry()) {
    U32 const pid = processOf(handler, entry->d_name);
    if (pid == 0 || !holdsSocket(handler, entry->d_name, inode)) continue;
    VELTRO_TRACE(handler, 5, "Util::readProcFd() found owner pid: " << pid);
    return static_cast<pid_t>(pid);
  }
  return 0;
}

}  // namespace

pid_t Util::readSocketPid(Platform::DebugHandler& handler, std::string const& name) {
  VELTRO_TRACE(handler, 5, "Util::readSocketPid() searching for socket name: " << name);
  U32 const inode = readProcNetUnix(handler, name);
  if (inode == 0) {
    VELTRO_TRACE(handler, 1, "Util::readSocketPid() unable to find inode for socket: " << name);
    return 0;
  }
  return readProcFd(handler, inode);
}

}  // namespace Veltro
