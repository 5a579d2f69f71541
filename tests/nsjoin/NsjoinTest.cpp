#include "nsjoin.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "tests/support/Child.h"
#include "tests/support/NetworkNamespaces.h"

namespace Veltro {
namespace {

TEST(NsjoinTest, refusalsSayWhichStepFailed) {
  EXPECT_STREQ("", netnsGetTracebuffer());
  struct {
    char const* name;
    int error;
    char const* trace;
  } const cases[] = {
      {nullptr, EINVAL, "setnsByName(): name: Invalid argument"},
      {"", EINVAL, "setnsByName(): name: Invalid argument"},
      {"../net", EINVAL, "setnsByName(../net): name: Invalid argument"},
      {"veltro-none", ENOENT,
       "setnsByName(veltro-none): open /var/run/netns/veltro-none: No such file or directory"},
  };
  for (auto const& c : cases) {
    EXPECT_EQ(-1, setnsByName(c.name, CLONE_NEWNET));
    EXPECT_EQ(c.error, errno);
    EXPECT_STREQ(c.trace, netnsGetTracebuffer());
  }
  std::thread([] { EXPECT_STREQ("", netnsGetTracebuffer()); }).join();
  EXPECT_EQ(-1, setnsByName(std::string(100000, 'n').c_str(), CLONE_NEWNET));
  EXPECT_EQ(ENAMETOOLONG, errno);
}

TEST(NsjoinTest, movesTheCallingThreadOnlyAndOnlyToNamespaces) {
  if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to make namespaces";
  inChild([] {
    ASSERT_TRUE(enterOwnMounts());
    hideNamedNamespaces();
    ino_t const other = makeNamespace("other");
    ino_t const byDefault = makeNamespace(DEFAULT_NS);
    makeEmptyFile(namespaceFile("file"));
    ASSERT_EQ(0, ::mkfifo(namespaceFile("fifo").c_str(), 0644));
    ino_t const home = ownNamespace();
    int const descriptors = openDescriptors();
    std::thread([&] {
      EXPECT_EQ(0, setnsByName("other", CLONE_NEWNET));
      EXPECT_EQ(other, ownNamespace());
      EXPECT_EQ(0, setnsByName(DEFAULT_NS, 0));
      EXPECT_EQ(byDefault, ownNamespace());
    }).join();
    struct {
      char const* name;
      int type;
      uid_t user;
      int error;
      char const* trace;
    } const cases[] = {
        {"file", CLONE_NEWNET, 0, EINVAL, "setnsByName(file): setns: Invalid argument"},
        {"fifo", CLONE_NEWNET, 0, EINVAL, "setnsByName(fifo): setns: Invalid argument"},
        {"other", CLONE_NEWUTS, 0, EINVAL, "setnsByName(other): setns: Invalid argument"},
        {"other", CLONE_NEWNET, 65534, EPERM, "setnsByName(other): setns: Operation not permitted"},
    };
    for (auto const& c : cases) {
      ASSERT_EQ(0, ::setuid(c.user));
      EXPECT_EQ(-1, setnsByName(c.name, c.type));
      EXPECT_EQ(c.error, errno);
      EXPECT_STREQ(c.trace, netnsGetTracebuffer());
    }
    EXPECT_EQ(home, ownNamespace());
    EXPECT_EQ(descriptors, openDescriptors());
  });
}

TEST(NsjoinTest, theDefaultWithoutAFileIsProcessOnes) {
  if (!mayUnshare()) GTEST_SKIP() << "needs the privilege to make namespaces";
  inChild([] {
    ASSERT_TRUE(enterOwnMounts());
    hideNamedNamespaces();
    ASSERT_EQ(0, ::unshare(CLONE_NEWPID));
    inChild([] {  // the first process of a tree of its own
      if (::mount("none", "/proc", "proc", 0, nullptr) != 0) {
        EXPECT_EQ(-1, setnsByName(DEFAULT_NS, CLONE_NEWNET));
        EXPECT_EQ(0,
                  std::strncmp(netnsGetTracebuffer(), "setnsByName(default): open /proc/1/ns", 37));
        return;
      }
      ASSERT_EQ(1, ::getpid());
      ino_t const first = ownNamespace();
      std::thread([first] {
        ASSERT_EQ(0, ::unshare(CLONE_NEWNET));
        EXPECT_NE(first, ownNamespace());
        EXPECT_EQ(0, setnsByName(DEFAULT_NS, CLONE_NEWNET)) << netnsGetTracebuffer();
        EXPECT_EQ(first, ownNamespace());
      }).join();
    });
  });
}

}  // namespace
}  // namespace Veltro
