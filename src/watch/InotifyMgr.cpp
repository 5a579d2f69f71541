#include "Veltro/InotifyMgr.h"

#include <limits>
#include <ostream>

#include "InotifyMgr.model.h"
#include "Kiv/Exception.h"
#include "Mem/InotifyMgr.h"
#include "Mem/WatchDescriptor.h"
#include "Veltro/Debug.h"
#include "Veltro/InotifyWatcherHelper.h"
#include "diag/FatalCheck.h"

namespace Veltro {
namespace {

constexpr char const* kSourceFile = "Veltro/InotifyMgr";

// Never freed: watchers that go at exit still trace. Function-local: the order of loading does
// not matter.
Platform::DebugHandler& debug() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("InotifyMgr");
  return *handler;
}
[[maybe_unused]] Platform::DebugHandler& atLoad = debug();

Mem::InotifyMgr::Table const& watches() {
  return Mem::InotifyMgr::getInotifyMgr().watchDescriptors();
}

WatchDescriptor descriptorOf(int wd) {
  auto const [first, last] = watches().equal_range(wd);
  if (first == last) return WatchDescriptor();
  WatchDescriptor descriptor(first->second->path(), wd);
  U32 key = 0;
  for (auto entry = first; entry != last; ++entry) {
    descriptor.watcherIs(key++, Watcher(entry->second->type(), entry->second->mask()));
  }
  return descriptor;
}

}  // namespace

InotifyWatcher::InotifyWatcher(Kiv::String path, U32 mask)
    : path_(*this, path), mask_(*this, mask) {
  handleInitialized();
}

InotifyWatcher::~InotifyWatcher() { handleDestruction(); }

void InotifyWatcher::handleInitialized() {
  VELTRO_TRACE(debug(), 8, "void Veltro::InotifyWatcher::handleInitialized()");
  if (initialized_()) return;
  initialized_.is(true);
  inotifyWatcherHelper_.is(new InotifyWatcherHelper(debug(), path_(), mask_(), this));
}

void InotifyWatcher::handleDestruction() {
  VELTRO_TRACE(debug(), 8, "void Veltro::InotifyWatcher::handleDestruction()");
  delete inotifyWatcherHelper_();
  inotifyWatcherHelper_.is(nullptr);
}

U32 InotifyWatcher::eventCountInc(U32 n) {
  U32 const count = eventCount_() + n;
  eventCount_.is(count);  // the entity may be gone on return
  return count;
}

Kiv::Ptr<InotifyWatcher> inotifyWatcherFactory(Kiv::String path, U32 mask) {
  return Kiv::allocate<InotifyWatcher>(path, mask);
}

Watcher::Watcher(Kiv::String const& form)
    : Watcher(Kiv::ValueType<Watcher>::from(Kiv::Value::parsed(form))) {}

Kiv::String Watcher::text() const { return Kiv::ValueType<Watcher>::of(*this).text(); }

// Not by VELTRO_FATAL_CHECK: a literal as a condition is taken for a mistake by clang.
WatchDescriptor::WatchDescriptor(Kiv::String const&) {
  __assert_fail("!\"No String constructor for WatchDescriptor - has collection\"", __FILE__,
                __LINE__, __func__);
}

Kiv::String WatchDescriptor::text() const {
  return Kiv::ValueType<WatchDescriptor>::of(*this).text();
}

Watcher WatchDescriptor::watcher(U32 key) const {
  auto const at = watchers_.find(key);
  return at == watchers_.end() ? Watcher() : at->second;
}

void WatchDescriptor::newWatcher(U32 key, Watcher const& watcher) {
  if (!watchers_.emplace(key, watcher).second) {
    throw Kiv::RangeException("watcher " + std::to_string(key) + " is there already");
  }
}

void WatchDescriptor::watcherIs(U32 key, Watcher const& watcher) {
  watchers_.insert_or_assign(key, watcher);
}

Watcher WatchDescriptor::watcherDel(U32 key) {
  auto const node = watchers_.extract(key);
  return node.empty() ? Watcher() : node.mapped();
}

bool operator==(WatchDescriptor const& a, WatchDescriptor const& b) {
  return a.name_ == b.name_ && a.wd_ == b.wd_ && a.watchers_ == b.watchers_;
}

std::ostream& operator<<(std::ostream& os, Watcher const& watcher) { return os << watcher.text(); }

std::ostream& operator<<(std::ostream& os, WatchDescriptor const& descriptor) {
  return os << descriptor.text();
}

InotifyMgr::InotifyMgr() = default;
InotifyMgr::~InotifyMgr() = default;

WatchDescriptor InotifyMgr::descriptor(int wd) const { return descriptorOf(wd); }

InotifyMgr::DescriptorIteratorConst InotifyMgr::descriptorIteratorConst() const {
  return descriptorIteratorConst(std::numeric_limits<int>::min());
}

InotifyMgr::DescriptorIteratorConst InotifyMgr::descriptorIteratorConst(int wd) const {
  return DescriptorIteratorConst(wd);
}

std::map<Kiv::S32, WatchDescriptor> InotifyMgr::_descriptors() const {
  std::map<Kiv::S32, WatchDescriptor> all;
  for (auto it = descriptorIteratorConst(); it; ++it) all.emplace_hint(all.end(), it.key(), *it);
  return all;
}

// Holds a number, not a place in the table: that would not survive changes.
InotifyMgr::DescriptorIteratorConst::DescriptorIteratorConst(Kiv::S32 atLeast) {
  auto const at = watches().lower_bound(atLeast);
  valid_ = at != watches().end();
  wd_ = valid_ ? at->first : -1;  // no watch has that number
}

InotifyMgr::DescriptorIteratorConst& InotifyMgr::DescriptorIteratorConst::operator++() {
  auto const next = watches().upper_bound(wd_);
  valid_ = valid_ && next != watches().end();
  wd_ = valid_ ? next->first : -1;
  return *this;
}

WatchDescriptor InotifyMgr::DescriptorIteratorConst::operator*() const { return descriptorOf(wd_); }

Kiv::Ptr<InotifyMgr> inotifyMgrFactory() { return Kiv::allocate<InotifyMgr>(); }

}  // namespace Veltro
