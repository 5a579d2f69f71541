#include "Veltro/DirNode.h"

#include <cerrno>

#include "CPath.h"
#include "Veltro/Debug.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/DirNode";

}  // namespace

DirNode::DirNode(Platform::DebugHandler& handler, std::string const& path)
    : path_(path), handler_(handler), dir_(nullptr) {
  VELTRO_TRACE(handler_, 5, "DirNode::DirNode() path: " << path_);
  dir_ = ::opendir(util::cPath(path_));
  if (dir_ == nullptr) {
    int const error = errno;
    VELTRO_TRACE(handler_, 1, "DirNode::DirNode() failed to open " << path_ << " errno: " << error);
  }
}

DirNode::~DirNode() {
  VELTRO_TRACE(handler_, 5, "DirNode::~DirNode() path: " << path_);
  if (dir_ != nullptr && ::closedir(dir_) != 0) {
    int const error = errno;
    VELTRO_TRACE(handler_, 1,
                 "DirNode::~DirNode() failed to close " << path_ << " errno: " << error);
  }
}

bool DirNode::openDir() {
  // The stream is gone also when closing it fails.
  if (dir_ != nullptr && ::closedir(dir_) != 0) {
    int const error = errno;
    VELTRO_TRACE(
        handler_, 1,
        "DirNode::openDir() failed to close " << path_ << " before reopening. errno: " << error);
  }
  dir_ = ::opendir(util::cPath(path_));
  if (dir_ == nullptr) {
    int const error = errno;
    VELTRO_TRACE(handler_, 1, "DirNode::openDir() failed to open " << path_ << " errno: " << error);
  }
  return isOpen();
}

dirent* DirNode::readEntry() const {
  VELTRO_TRACE(handler_, 5, "DirNode::readEntry() path: " << path_);
  if (dir_ == nullptr) {
    VELTRO_TRACE(
        handler_, 1,
        "DirNode::readEntry() cannot read " << path_ << " because the directory is not open");
    return nullptr;
  }
  errno = 0;  // readdir's null is the end or an error
  dirent* const entry = ::readdir(dir_);
  if (entry == nullptr && errno != 0) {
    int const error = errno;
    VELTRO_TRACE(handler_, 1,
                 "DirNode::readEntry() failed to read " << path_ << " errno: " << error);
  }
  return entry;
}

}  // namespace Veltro
