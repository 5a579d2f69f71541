#include "Veltro/UtilCpp.h"

#include <ios>

#include "Handler.h"
#include "ProcText.h"
#include "ReadFile.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/UtilCpp";

std::string procFile(pid_t pid, char const* name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

}  // namespace

std::string Util::readProcTitle(Platform::DebugHandler& handler, pid_t pid) {
  std::string const path = procFile(pid, "status");
  util::FileText const file = util::readFile(path);
  if (!file.opened) {
    VELTRO_TRACE(handler, 1, "Util::readProcTitle() error - Couldn't access status file: " << path);
    return {};
  }
  std::optional<std::string> const title = util::valueAfterTag(file.text, "Name:");
  if (!title) {
    // As a stream says it: nothing more to read; bad, for a process that ended meanwhile.
    std::ios::iostate const state = std::ios::eofbit | std::ios::failbit |
                                    (file.complete ? std::ios::goodbit : std::ios::badbit);
    VELTRO_TRACE(handler, 1,
                 "Util::readProcTitle() error - Couldn't find proc title for pid: "
                     << pid << " stream state: " << state);
    return {};
  }
  if (title->empty()) {
    VELTRO_TRACE(handler, 1, "Util::readProcTitle() error - Read 0 length title for pid: " << pid);
  } else {
    VELTRO_TRACE(handler, 5, "Util::readProcTitle() success - title: " << *title);
  }
  return *title;
}

std::string Util::readProcTitle(pid_t pid) { return readProcTitle(util::debug(), pid); }

std::string Util::readPidCmdline(Platform::DebugHandler& handler, pid_t pid) {
  return fileRead(handler, procFile(pid, "cmdline"), true);
}

}  // namespace Veltro
