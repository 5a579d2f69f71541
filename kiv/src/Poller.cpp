#include "Poller.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <string>

#include "Kiv/Exception.h"

namespace Kiv {
namespace {

constexpr U32 kReadable = EPOLLIN | EPOLLHUP | EPOLLERR;
constexpr U32 kWritable = EPOLLOUT | EPOLLHUP | EPOLLERR;

// Counted in the child, where nothing but memory may be touched yet.
std::atomic<U32> forks{0};
void countFork() { forks.fetch_add(1, std::memory_order_relaxed); }

/// Asked without any effect on it: a duplicate of a parent's set shares the set itself.
bool isEpollSet(int descriptor, int other) {
  return ::epoll_ctl(descriptor, EPOLL_CTL_DEL, other, nullptr) != 0 && errno == ENOENT;
}

int toMilliseconds(double seconds) {
  constexpr double kLongest = 1e9;
  double const milliseconds = std::ceil(seconds * 1e3);
  return static_cast<int>(milliseconds < kLongest ? milliseconds : kLongest);
}

::timespec toTimespec(double seconds) {
  constexpr double kLongest = 1e9;  // fits 32 bits; the loop waits again
  if (seconds > kLongest) seconds = kLongest;
  double const whole = std::floor(seconds);
  auto nanoseconds = static_cast<long>(std::ceil((seconds - whole) * 1e9));
  ::timespec time{};
  time.tv_sec = static_cast<std::time_t>(whole) + nanoseconds / 1000000000;
  time.tv_nsec = nanoseconds % 1000000000;
  return time;
}

void sleep(double seconds) {
  ::timespec const time = toTimespec(seconds > 0 ? seconds : 0);
  ::ppoll(nullptr, 0, &time, nullptr);
}

}  // namespace

Poller::Poller() {
  int const error = ::pthread_atfork(nullptr, nullptr, countFork);
  if (error != 0) throw ErrnoException("pthread_atfork", error);
}

void Poller::watch(FileDescriptor& entity, int descriptor) {
  bool const known = descriptor >= 0 && static_cast<U32>(descriptor) < slots_.size();
  U32 const mask = (known ? _union(descriptor) : 0) | entity._interests();
  int error = _ensureSet();
  // The kernel first: the number may be absurd.
  if (error == 0 && (mask == 0 || !known)) error = _probe(descriptor);
  if (error == 0 && !known) slots_.resize(static_cast<U32>(descriptor) + 1);
  if (error == 0 && _slot(descriptor).mask == 0) {
    _slot(descriptor).background = entity.background_;
  }
  if (error == 0 && mask != 0) error = _control(descriptor, mask);
  if (error != 0) throw ErrnoException("descriptor " + std::to_string(descriptor), error);

  FileDescriptor** end = &_slot(descriptor).first;
  while (*end != nullptr) end = &(*end)->nextOfDescriptor_;
  *end = &entity;
  entity.nextOfDescriptor_ = nullptr;
  entity.descriptor_ = descriptor;
  entity.joinedAt_ = looks_;
}

void Poller::unwatch(FileDescriptor& entity) {
  int const descriptor = entity.descriptor_;
  if (descriptor < 0) return;
  if (cursor_ == &entity) cursor_ = entity.nextOfDescriptor_;
  FileDescriptor** link = &_slot(descriptor).first;
  while (*link != &entity) link = &(*link)->nextOfDescriptor_;
  *link = entity.nextOfDescriptor_;
  entity.descriptor_ = -1;
  interestsChanged(descriptor);
}

int Poller::interestsChanged(int descriptor) {
  U32 const mask = _union(descriptor);
  return mask == _slot(descriptor).mask ? 0 : _control(descriptor, mask);
}

U32 Poller::_union(int descriptor) const {
  U32 mask = 0;
  FileDescriptor const* entity = slots_[static_cast<U32>(descriptor)].first;
  for (; entity != nullptr; entity = entity->nextOfDescriptor_) mask |= entity->_interests();
  return mask;
}

/// Whether the kernel would watch it. One that it watches already passes.
int Poller::_probe(int descriptor) const {
  ::epoll_event event{};
  event.data.u64 = static_cast<U32>(descriptor);
  if (::epoll_ctl(set_, EPOLL_CTL_ADD, descriptor, &event) != 0) {
    return errno == EEXIST ? 0 : errno;
  }
  ::epoll_ctl(set_, EPOLL_CTL_DEL, descriptor, nullptr);
  return 0;
}

/// Asks the kernel for `mask`. What it refuses, it does not watch.
int Poller::_control(int descriptor, U32 mask) {
  ++changes_;
  int error = _ensureSet();
  if (error != 0) {
    // Asking for less than before needs no set: the next one starts with what is left.
    if ((mask & ~_slot(descriptor).mask) != 0) return error;
    _maskIs(descriptor, mask);
    return 0;
  }
  if (mask == 0) {
    _unregister(descriptor);
    return 0;
  }
  error = _register(descriptor, mask);
  _maskIs(descriptor, error == 0 ? mask : 0);
  return error;
}

int Poller::_register(int descriptor, U32 mask) {
  Slot& slot = _slot(descriptor);
  ::epoll_event event{};
  event.events = mask;
  auto const control = [&](int operation) {
    event.data.u64 = U64{slot.registration} << 32 | static_cast<U32>(descriptor);
    return ::epoll_ctl(set_, operation, descriptor, &event) == 0 ? 0 : errno;
  };
  // The number may have been closed, and given to another file, without a word.
  if (slot.mask != 0) {
    int const error = control(EPOLL_CTL_MOD);
    if (error != ENOENT) return error;
  }
  slot.registration = ++registrations_;
  int const error = control(EPOLL_CTL_ADD);
  return error == EEXIST ? control(EPOLL_CTL_MOD) : error;
}

/// A refusal means that the kernel has forgotten it already: it was closed.
void Poller::_unregister(int descriptor) {
  if (_slot(descriptor).mask != 0) ::epoll_ctl(set_, EPOLL_CTL_DEL, descriptor, nullptr);
  _maskIs(descriptor, 0);
}

void Poller::_maskIs(int descriptor, U32 mask) {
  Slot& slot = _slot(descriptor);
  U32 const background = slot.background ? 1 : 0;
  if (slot.mask == 0 && mask != 0) {
    ++watched_;
    background_ += background;
  }
  if (slot.mask != 0 && mask == 0) {
    --watched_;
    background_ -= background;
  }
  slot.mask = mask;
}

/// 0, or why there is none.
int Poller::_ensureSet() {
  bool const ours = set_ >= 0 && forks_ == forks.load(std::memory_order_relaxed);
  return ours ? 0 : _renewSet();
}

int Poller::_renewSet() {
  int const set = ::epoll_create1(EPOLL_CLOEXEC);
  if (set < 0) return errno;
  // By now the old number may be somebody else's.
  if (set_ >= 0 && isEpollSet(set_, set)) ::close(set_);
  set_ = set;
  forks_ = forks.load(std::memory_order_relaxed);
  ++changes_;
  for (U32 i = 0; i < slots_.size(); ++i) {
    U32 const mask = slots_[i].mask;
    if (mask == 0) continue;
    _maskIs(static_cast<int>(i), 0);
    _control(static_cast<int>(i), mask);
  }
  return 0;
}

bool Poller::look(double seconds) {
  int error = _ensureSet();
  ++looks_;
  changes_ = 0;
  ready_ = 0;
  if (error != 0) {
    if (watching()) throw ErrnoException("epoll_create1", error);
    sleep(seconds);  // timers go on also where no descriptor is left
    return false;
  }
  int const count = _waitForEvents(seconds);
  if (count >= 0) {
    ready_ = static_cast<U32>(count);
    return ready_ != 0;
  }
  error = errno;
  if (error == EBADF || error == EINVAL) error = _renewSet();  // somebody closed it
  if (error != 0 && error != EINTR) throw ErrnoException("epoll_wait", error);
  return false;
}

int Poller::_waitForEvents(double seconds) {
  static bool exact = true;
  auto const capacity = static_cast<int>(events_.size());
  if (seconds <= 0) return ::epoll_wait(set_, events_.data(), capacity, 0);
  if (std::isinf(seconds)) return ::epoll_wait(set_, events_.data(), capacity, -1);
  if (exact) {
    ::timespec const time = toTimespec(seconds);
    int const count = ::epoll_pwait2(set_, events_.data(), capacity, &time, nullptr);
    if (count >= 0 || errno != ENOSYS) return count;
    exact = false;
  }
  return ::epoll_wait(set_, events_.data(), capacity, toMilliseconds(seconds));
}

void Poller::serve(Reaction& reaction, bool const& stop) {
  U32 const ready = ready_;
  ready_ = 0;
  if (turn_ >= ready) turn_ = 0;
  U32 next = turn_;
  for (U32 left = ready; left != 0; --left) {
    if (stop) return;
    ++turn_;
    _serveEvent(events_[next], reaction);
    if (++next == ready) next = 0;
  }
  turn_ = 0;
}

void Poller::_serveEvent(::epoll_event const& event, Reaction& reaction) {
  auto const number = static_cast<U32>(event.data.u64);
  Slot const& slot = slots_[number];
  if (slot.mask == 0 || slot.registration != event.data.u64 >> 32) {
    // Out of date since the look; or, with nothing changed since, of a registration that has
    // outlived its number and would be reported for ever.
    if (changes_ == 0) _renewSet();
    return;
  }
  bool const readable = (event.events & kReadable) != 0;
  bool const writable = (event.events & kWritable) != 0;
  for (cursor_ = slot.first; cursor_ != nullptr;) {
    Ptr<FileDescriptor> const entity(cursor_);
    cursor_ = entity->nextOfDescriptor_;
    if (entity->joinedAt_ != looks_) _notify(*entity, readable, writable, reaction);
  }
}

void Poller::_notify(FileDescriptor& entity, bool readable, bool writable, Reaction& reaction) {
  using Notifiee = FileDescriptor::Notifiee;
  int const descriptor = entity.descriptor_;
  auto const count = [&](U32& counter, void (Notifiee::*onCount)()) {
    ++counter;
    if (Notifiee* const notifiee = entity.notifiee_) {
      reaction.run(*notifiee, false, [&] { (notifiee->*onCount)(); });
    }
  };
  if (readable && entity.notifyOnReadable_) {
    count(entity.readableCount_, &Notifiee::onReadableCount);
  }
  bool const same = entity.descriptor_ == descriptor && entity.joinedAt_ != looks_;
  if (same && writable && entity.notifyOnWritable_) {
    count(entity.writableCount_, &Notifiee::onWritableCount);
  }
}

}  // namespace Kiv
