#pragma once
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace bench {

struct SocketPair {
  SocketPair() {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, end) != 0)
      std::abort();
  }
  SocketPair(SocketPair const&) = delete;
  ~SocketPair() {
    ::close(end[0]);
    ::close(end[1]);
  }
  void put(int which) const {
    if (::write(end[which], "x", 1) != 1) std::abort();
  }
  void take(int which) const {
    char byte;
    if (::read(end[which], &byte, 1) != 1) std::abort();
  }
  int end[2];
};

/// A descriptor that is watched and never ready, so that no loop may forget about descriptors.
template <class Loop>
struct IdleWatch {
  explicit IdleWatch(Loop& loop) : watch(loop, pair.end[0]) {}
  struct Silent : Loop::template Watch<Silent> {
    Silent(Loop& loop, int fd) : Loop::template Watch<Silent>(loop, fd) {}
    void ready() { std::abort(); }
  };
  SocketPair pair;
  Silent watch;
};

}  // namespace bench
