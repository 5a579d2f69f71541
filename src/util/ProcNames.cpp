#include "Veltro/UtilCpp.h"

#include <sstream>

#include "Handler.h"
#include "ReadFile.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/UtilCpp";

std::string procFile(pid_t pid, char const* name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

/// What follows the tag and the blanks after it (the kernel puts a tab there).
std::string valueAfter(std::string const& tag, std::string const& line) {
  std::size_t const begin = line.find_first_not_of(" \t", tag.size());
  return begin == std::string::npos ? std::string() : line.substr(begin);
}

}  // namespace

std::string Util::readProcTitle(Platform::DebugHandler& handler, pid_t pid) {
  std::string const path = procFile(pid, "status");
  util::FileText const file = util::readFile(path);
  if (!file.opened) {
    VELTRO_TRACE(handler, 1, "Util::readProcTitle() error - Couldn't access status file: " << path);
    return {};
  }
  std::string const tag = "Name:";
  std::istringstream lines(file.text);
  std::string line;
  while (std::getline(lines, line) && line.compare(0, tag.size(), tag) != 0) {
  }
  if (!lines) {
    if (!file.complete) lines.setstate(std::ios::badbit);  // the process ended meanwhile
    VELTRO_TRACE(handler, 1,
                 "Util::readProcTitle() error - Couldn't find proc title for pid: "
                     << pid << " stream state: " << lines.rdstate());
    return {};
  }
  std::string const title = valueAfter(tag, line);
  if (title.empty()) {
    VELTRO_TRACE(handler, 1, "Util::readProcTitle() error - Read 0 length title for pid: " << pid);
  } else {
    VELTRO_TRACE(handler, 5, "Util::readProcTitle() success - title: " << title);
  }
  return title;
}

std::string Util::readProcTitle(pid_t pid) { return readProcTitle(util::debug(), pid); }

std::string Util::readPidCmdline(Platform::DebugHandler& handler, pid_t pid) {
  return fileRead(handler, procFile(pid, "cmdline"), true);
}

}  // namespace Veltro
