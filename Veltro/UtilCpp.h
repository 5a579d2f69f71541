#pragma once
#include <sys/types.h>

#include <cstddef>
#include <string>

#include "Veltro/Platform.h"

namespace Veltro {

/// Small chores around files, paths, processes and sockets: a class used as a namespace.
///
/// Where a handler is the first argument, notes go to it; else to the category "VeltroUtil".
/// Failures of the world come back as results with a note: level 0 where the caller's wish was not
/// done, level 1 a warning, level 5 the expected. Nothing throws but what says so. A path that
/// holds a zero byte names no file. Every descriptor
/// is closed on every path, and the process's umask is restored on every path (Kiv/UmaskGuard.h).
/// Callable from any thread; nothing is kept between calls. All calls may block on the file system.
class VELTRO_API Util {
 public:
  Util() = delete;

  /// FNV-1a with each byte sign-extended before the exclusive-or, so that bytes from 0x80 on give
  /// other values than the textbook's. Stored hashes depend on it. Empty input gives the start
  /// value, 0x811c9dc5 and 0xcbf29ce484222325.
  static U32 hash(void const* bytes, std::size_t length);
  static U32 hash(std::string const& text);
  static U64 hash64(void const* bytes, std::size_t length);
  static U64 hash64(std::string const& text);

  /// Makes the directory `path` and its missing parents with exactly `mode` (the umask does not
  /// count). 0 when it is there at the end, also when it was there before: then neither its mode
  /// nor even its kind is looked at. Else -1 with errno; parents made so far stay. A set-id or
  /// sticky bit in `mode` reaches only directories whose parents were missing too.
  static int mkpath(std::string const& path, unsigned mode);
  /// Removes the empty directories that the end `trailing` of `absolute` names, deepest first:
  /// ("/x/y/z", "y/z") removes /x/y/z, then /x/y. Missing ones count as removed. 0, or -1 with
  /// errno at the first that cannot be removed. Beginning with several slashes, `trailing` names
  /// the folder before them too. AssertException unless `absolute` begins with "/" and `trailing`
  /// is a shorter, non-empty end of it.
  static int trimpath(std::string const& absolute, std::string const& trailing);
  /// The working directory; empty when it cannot be told, as after its removal.
  static std::string getCwd(Platform::DebugHandler& handler);

  /// Replaces the content of `path`, made with mode 0666 whatever the umask. Throws
  /// RuntimeException when it cannot be opened, written or closed, unless `quiet`. A short write
  /// (disk full halfway) is only noted, at level 0. The file is not synced.
  static void fileWrite(Platform::DebugHandler& handler, std::string const& path,
                        std::string const& content, bool quiet);
  /// All of `path`; empty when it cannot be opened. What was read so far when reading fails or the
  /// content does not fit into memory, with a level-1 note. A FIFO is read to its end.
  static std::string fileRead(Platform::DebugHandler& handler, std::string const& path,
                              bool reportOpenFailure);
  /// Whether `path` leads to something; a dangling link does not.
  static bool fileExists(Platform::DebugHandler& handler, std::string const& path);
  /// True when `path` is gone at the end, also when it was not there.
  static bool fileRemove(Platform::DebugHandler& handler, std::string const& path);
  /// Bytes; 0 also when the file cannot be asked.
  static U64 fileSize(Platform::DebugHandler& handler, std::string const& path);
  static U64 fileSize(Platform::DebugHandler& handler, int fd);
  /// ftruncate(fd, length): 0, or -1 with errno. `path` is for the caller's own reading.
  static int truncate(Platform::DebugHandler& handler, std::string const& path, int fd,
                      unsigned length);
  /// Makes `path`, empty and with mode 0666, when it is missing. Times do not change.
  static void touch(Platform::DebugHandler& handler, std::string const& path);

  /// The kernel's name of a process (15 bytes at most, line breaks shown as "\n"); empty when
  /// there is no such process.
  static std::string readProcTitle(Platform::DebugHandler& handler, pid_t pid);
  static std::string readProcTitle(pid_t pid);
  /// The arguments of a process, each ended by a zero byte; empty for a kernel thread or none.
  static std::string readPidCmdline(Platform::DebugHandler& handler, pid_t pid);
  /// The process that holds the local socket `name` open, or 0. The first socket whose line in
  /// /proc/net/unix contains `name` counts, and of its holders the first in /proc: give a name
  /// that is no part of another. A name that holds a blank or a line break is not found. The
  /// kernel prints names raw, so a name made for the purpose can imitate another's line: a help for
  /// people, not for decisions about trust. Walks every descriptor of every process that may be
  /// read: milliseconds to seconds.
  static pid_t readSocketPid(Platform::DebugHandler& handler, std::string const& name);

  /// socket(domain, type, protocol) in the system's default network namespace, whatever namespace
  /// the calling thread is in; in the thread's own when the default one cannot be entered. The
  /// descriptor is the caller's; negative with errno when there is none. The thread is back in its
  /// namespace on return. RuntimeException when it cannot get back: it must not go on then.
  /// Notes are at level 2. Entering needs CAP_SYS_ADMIN.
  static int socket(Platform::DebugHandler& handler, int domain, int type, int protocol);

  /// The address of an exported symbol of the program or a library in its global scope; null with
  /// a level-1 note when there is none.
  static void* resolveSym(Platform::DebugHandler& handler, char const* name);

  /// Adds file-backed shared mappings, such as counter files, to this process's core dumps.
  /// Without the kernel's filter file nothing happens; one that is not a number throws
  /// AssertException.
  static void includeShmemInCore();
};

/// Hooks of an external heap checker; null without a look when HEAPCHECK is not set.
class VELTRO_API HeapChecker {
 public:
  HeapChecker() = delete;
  /// The address of the heap checker's operation, null when there is none or HEAPCHECK is not set.
  static void* resolveAllocSym(Platform::DebugHandler& handler);
  static void* resolveFreeSym(Platform::DebugHandler& handler);
};

/// Two lower-case hexadecimal digits a byte, a blank after every fourth but the last: "00010203
/// ff". A length of 0 or less gives "".
VELTRO_API std::string dumpHex(void const* data, int length);

/// Seconds to wait where nothing else is said: WAITFOR_DEFAULT as it was at the first call of the
/// process, read as std::stod does; positive infinity when unset or, with a message on standard
/// error, when it cannot be read.
VELTRO_API double waitForDefaultTimeout();

}  // namespace Veltro
