// No header of the C library that would rename what is defined here.
#include "Outside.h"

#include <event2/event.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <new>

namespace {

using Veltro::Outside;
thread_local Outside* active = nullptr;
thread_local std::int64_t latestNs = 0;  // the libraries know: time goes on from one to the next
constexpr std::int64_t kSecond = 1000000000;

/// 0, or -1 with the error that a clock of 32 bits gives when its seconds have run out.
int clockIs(std::int64_t ns, std::time_t& seconds) {
  if (ns / kSecond > std::numeric_limits<std::time_t>::max()) {
    errno = EOVERFLOW;
    return -1;
  }
  seconds = static_cast<std::time_t>(ns / kSecond);
  return 0;
}

int wait(int set, epoll_event* events, int capacity, std::int64_t ns) {
  if (active->fails(Outside::epollWait)) return -1;
  auto const count = static_cast<int>(::syscall(SYS_epoll_wait, set, events, capacity, 0));
  if (count != 0 || ns == 0) return count;
  if (ns < 0) {
    std::fputs("waits for ever\n", stderr);
    std::abort();
  }
  active->nowNs += ns;
  return 0;
}

void* allocateAligned(std::size_t size, std::size_t alignment) {
  if (active != nullptr && active->fails(Outside::allocation)) return nullptr;
  void* memory = nullptr;
  if (::posix_memalign(&memory, alignment, size) != 0) return nullptr;
  if (active != nullptr) ++active->liveAllocations;
  return memory;
}
void* allocate(std::size_t size) { return allocateAligned(size, alignof(std::max_align_t)); }
void release(void* memory) {
  if (active != nullptr && memory != nullptr) --active->liveAllocations;
  std::free(memory);
}
void* reallocate(void* memory, std::size_t size) {
  if (memory == nullptr) return allocate(size);
  if (active != nullptr && active->fails(Outside::allocation)) return nullptr;
  return std::realloc(memory, size);
}
void* orThrow(void* memory) { return memory != nullptr ? memory : throw std::bad_alloc(); }

// Before libevent's first allocation.
[[maybe_unused]] bool const atLoad = (event_set_mem_functions(allocate, reallocate, release), true);

}  // namespace

namespace Veltro {

Outside::Outside() : nowNs((latestNs / kSecond + 1000) * kSecond), outer_(active), startNs_(nowNs) {
  active = this;
}
Outside::~Outside() {
  active = outer_;
  latestNs = nowNs;
}

void Outside::failIs(Call call, unsigned long number, bool forEver, int error) {
  failing_ = call;
  failAt_ = calls[call] + number;
  failForEver_ = forEver;
  error_ = error;
  failures_ = 0;
}

bool Outside::fails(Call call) {
  unsigned long const number = calls[call]++;
  if (call != failing_ || number < failAt_ || (number > failAt_ && !failForEver_)) return false;
  ++failures_;
  errno = error_;
  return true;
}

}  // namespace Veltro

#pragma GCC visibility push(default)  // or the libraries would not find them
extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  if (active == nullptr) return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
  ++active->clockReads;
  std::int64_t const ns = active->nowNs + (clock == CLOCK_REALTIME ? active->wallNs : 0);
  time->tv_nsec = static_cast<long>(ns % kSecond);
  return clockIs(ns, time->tv_sec);
}

int gettimeofday(timeval* time, void* zone) noexcept {
  if (active == nullptr) return static_cast<int>(::syscall(SYS_gettimeofday, time, zone));
  std::int64_t const ns = active->nowNs + active->wallNs;
  time->tv_usec = static_cast<decltype(time->tv_usec)>(ns % kSecond / 1000);
  return clockIs(ns, time->tv_sec);
}

int epoll_create1(int flags) noexcept {
  if (active != nullptr && active->fails(Outside::epollCreate)) return -1;
  return static_cast<int>(::syscall(SYS_epoll_create1, flags));
}

int epoll_ctl(int set, int operation, int fd, epoll_event* event) noexcept {
  if (active != nullptr && active->fails(Outside::epollControl)) return -1;
  return static_cast<int>(::syscall(SYS_epoll_ctl, set, operation, fd, event));
}

int epoll_wait(int set, epoll_event* events, int capacity, int milliseconds) {
  if (active != nullptr) return wait(set, events, capacity, milliseconds * std::int64_t{1000000});
  return static_cast<int>(::syscall(SYS_epoll_wait, set, events, capacity, milliseconds));
}

int epoll_pwait2(int set, epoll_event* events, int capacity, timespec const* time,
                 sigset_t const* signals) {
  if (active != nullptr) {
    return wait(set, events, capacity,
                time == nullptr ? -1 : time->tv_sec * kSecond + time->tv_nsec);
  }
  std::int64_t const wide[] = {time != nullptr ? time->tv_sec : 0,
                               time != nullptr ? time->tv_nsec : 0};
  return static_cast<int>(::syscall(SYS_epoll_pwait2, set, events, capacity,
                                    time != nullptr ? wide : nullptr, signals, 8));
}

}  // extern "C"

void* operator new(std::size_t size) { return orThrow(allocate(size)); }
void* operator new[](std::size_t size) { return orThrow(allocate(size)); }
void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return allocate(size); }
// TimerHeap's tables are aligned to cache lines.
void* operator new(std::size_t size, std::align_val_t alignment) {
  return orThrow(allocateAligned(size, static_cast<std::size_t>(alignment)));
}
void operator delete(void* memory) noexcept { release(memory); }
void operator delete[](void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { release(memory); }
void operator delete[](void* memory, std::size_t /*size*/) noexcept { release(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { release(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { release(memory); }
#pragma GCC visibility pop
