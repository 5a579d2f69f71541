#pragma once
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/TempDir.h"

namespace Veltro {

/// What somebody may put where an agent expects a file of its own.
enum class Plant {
  nothing,
  link,           // to somebody's file outside
  danglingLink,   // to a file outside that is not there yet
  directoryLink,  // to the directory outside
  hardLink,       // of somebody's file outside
  directory,
  pipe,
  socket,
  device,
  closedFile,  // another's, which nobody else may read
  shortFile,   // cut by another process
};

/// A directory `inside` with a plant in it, and one `outside` that must stay as it is.
class HostileDirectory {
 public:
  HostileDirectory(Plant plant, std::string const& name) : path_(temp_.path("inside/" + name)) {
    std::filesystem::create_directory(inside());
    std::filesystem::create_directory(outside());
    ::chmod(temp_.path().c_str(), 0755);
    std::ofstream(outside() + "/victim") << "precious";
    ::chmod((outside() + "/victim").c_str(), 0640);
    _plant(plant);
    before_ = _seenOutside();
  }
  std::string inside() const { return temp_.path("inside"); }
  std::string outside() const { return temp_.path("outside"); }
  /// Of the plant.
  std::string const& path() const { return path_; }
  bool outsideUntouched() const { return _seenOutside() == before_; }

 private:
  void _plant(Plant plant) const {
    namespace fs = std::filesystem;
    char const* const at = path_.c_str();
    switch (plant) {
      case Plant::nothing:
        return;
      case Plant::link:
        return fs::create_symlink(outside() + "/victim", at);
      case Plant::danglingLink:
        return fs::create_symlink(outside() + "/new", at);
      case Plant::directoryLink:
        return fs::create_directory_symlink(outside(), at);
      case Plant::hardLink:
        return fs::create_hard_link(outside() + "/victim", at);
      case Plant::directory:
        fs::create_directory(at);
        return;
      case Plant::pipe:
        return _made(::mkfifo(at, 0666));
      case Plant::socket: {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, at, sizeof address.sun_path - 1);
        int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        _made(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
        ::close(fd);
        return;
      }
      case Plant::device:  // endless zeros
        return _made(::mknod(at, S_IFCHR | 0666, ::makedev(1, 5)));
      case Plant::closedFile:
        std::ofstream(at) << "closed";
        return _made(::chmod(at, 0600));
      case Plant::shortFile:
        std::ofstream(at) << "cut";
    }
  }
  static void _made(int result) {
    if (result != 0) throw std::runtime_error(std::strerror(errno));
  }
  std::string _seenOutside() const {
    std::ostringstream seen;
    for (auto const& entry : std::filesystem::directory_iterator(outside())) {
      struct stat info {};
      ::lstat(entry.path().c_str(), &info);
      seen << entry.path() << ' ' << info.st_mode << ' ' << info.st_uid << ' '
           << info.st_mtim.tv_sec << '.' << info.st_mtim.tv_nsec << ' '
           << std::ifstream(entry.path()).rdbuf() << '\n';
    }
    return seen.str();
  }

  TempDir temp_;
  std::string const path_;
  std::string before_;
};

}  // namespace Veltro
