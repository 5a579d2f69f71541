#include "Mem/WatchDescriptor.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

namespace Mem::WatchDescriptor {

WatchDescriptor::WatchDescriptor(Veltro::Platform::DebugHandler& handler, unsigned mask,
                                 std::string const& path, InotifyMgr::Watcher* watcher)
    : handler_(handler), mask_(mask), path_(path), watcher_(watcher) {}

WatchDescriptor::~WatchDescriptor() { InotifyMgr::getInotifyMgr()._del(*this); }

bool WatchDescriptor::initialize() { return wd_ >= 0 || InotifyMgr::getInotifyMgr()._add(*this); }

std::string WatchDescriptor::type() const {
  char const* const name = typeid(*watcher_).name();
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> const readable(
      abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
  return readable != nullptr ? readable.get() : name;
}

}  // namespace Mem::WatchDescriptor
