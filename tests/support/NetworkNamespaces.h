#pragma once
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace Veltro {

/// Which network namespace the calling thread is in.
inline ino_t ownNamespace() {
  struct stat info {};
  EXPECT_EQ(0, ::stat("/proc/thread-self/ns/net", &info));
  return info.st_ino;
}

inline std::string namespaceFile(std::string const& name) { return "/run/netns/" + name; }

inline void makeEmptyFile(std::string const& path) {
  ::close(::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
}

/// An empty folder of named namespaces; for a process with mounts of its own.
inline void hideNamedNamespaces() {
  ASSERT_EQ(0, ::mount("none", "/run", "tmpfs", 0, nullptr));
  ASSERT_EQ(0, ::mkdir("/run/netns", 0755));
}

/// Makes a namespace of that name and returns it; the calling thread is in yet another new one
/// then.
inline ino_t makeNamespace(std::string const& name) {
  EXPECT_EQ(0, ::unshare(CLONE_NEWNET));
  makeEmptyFile(namespaceFile(name));
  EXPECT_EQ(0, ::mount("/proc/thread-self/ns/net", namespaceFile(name).c_str(), nullptr, MS_BIND,
                       nullptr));
  ino_t const made = ownNamespace();
  EXPECT_EQ(0, ::unshare(CLONE_NEWNET));
  EXPECT_NE(made, ownNamespace());
  return made;
}

}  // namespace Veltro
