#pragma once
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <functional>

namespace Veltro {

/// Nothing that a test has forked lives on when the test is ended from outside.
inline void dieWithTheParent() { ::prctl(PR_SET_PDEATHSIG, SIGKILL); }

/// Runs `body` in a forked child, which may spoil its environment, limits and namespaces at will.
/// Its expectations are printed as they fail, and fail the calling test.
inline void inChild(std::function<void()> const& body) {
  std::fflush(nullptr);
  auto const failures = [] {
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
  };
  int const before = failures();
  pid_t const child = ::fork();
  if (child == 0) {
    dieWithTheParent();
    try {
      body();
    } catch (std::exception const& fault) {
      ADD_FAILURE() << fault.what();
    }
    std::fflush(nullptr);
    ::_exit(failures() > before ? 1 : 0);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(0, status) << "the child failed";
}

/// From here on the kernel answers the system call with `error`, in this process only, for good.
inline void failSystemCall(long number, int error) {
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog const program = {sizeof code / sizeof code[0], code};
  ASSERT_EQ(0, ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
  ASSERT_EQ(0, ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program));
}

inline void limitIs(__rlimit_resource resource, rlim_t value) {
  rlimit limit{};
  ::getrlimit(resource, &limit);
  limit.rlim_cur = value;
  ASSERT_EQ(0, ::setrlimit(resource, &limit));
}

/// How many descriptors this process has open; needs no /proc.
inline int openDescriptors() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) count += ::fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
  return count;
}

/// The number that the next descriptor will get, and the one after it.
inline std::array<int, 2> nextDescriptors() {
  std::array<int, 2> const next = {::dup(0), ::dup(0)};
  for (int const fd : next) ::close(fd);
  return next;
}

/// Gives this process mounts of its own, which vanish with it. False without the privilege.
inline bool enterOwnMounts() {
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

inline bool mayUnshare() {
  pid_t const child = ::fork();
  if (child == 0) ::_exit(enterOwnMounts() && ::unshare(CLONE_NEWNET) == 0 ? 0 : 1);
  int status = -1;
  ::waitpid(child, &status, 0);
  return status == 0;
}

}  // namespace Veltro
