#include "Veltro/DirNode.h"

#include <unistd.h>

#include <cerrno>
#include <set>

#include "tests/util/UtilTest.h"

namespace Veltro {
namespace {

using testing::ElementsAre;
using DirNodeTest = UtilTest;

TEST_F(DirNodeTest, readsAllEntriesAndStartsOver) {
  Util::touch(handler, folder.path("b\nc"));
  handler.enabledIs(5, false);
  DirNode node(handler, folder.path());
  for (int round = 0; round < 2; ++round) {
    std::multiset<std::string> names;
    errno = EIO;  // of before: the end is no error
    while (dirent const* const entry = node.readEntry()) names.insert(entry->d_name);
    EXPECT_THAT(names, ElementsAre(".", "..", "b\nc"));
    EXPECT_TRUE(node.openDir());
  }
  EXPECT_THAT(records(), testing::IsEmpty());
}

TEST_F(DirNodeTest, saysWhatFails) {
  std::string const path = folder.path("dir");
  Util::touch(handler, path);
  int const under = nextDescriptors()[0];
  {
    DirNode node(handler, path);
    EXPECT_FALSE(node.isOpen());
    EXPECT_EQ(nullptr, node.readEntry());
    EXPECT_FALSE(node.openDir());
    ::unlink(path.c_str());
    Util::mkpath(path, 0777);
    EXPECT_TRUE(node.openDir());
    ::dup2(0, under);  // its descriptor becomes something else, and is taken away
    EXPECT_EQ(nullptr, node.readEntry());
    ::close(under);
    EXPECT_TRUE(node.openDir());
    ::close(under);
  }
  EXPECT_THAT(
      records(),
      ElementsAre(
          "5 DirNode::DirNode() path: " + path,
          "1 DirNode::DirNode() failed to open " + path + " errno: 20",
          "5 DirNode::readEntry() path: " + path,
          "1 DirNode::readEntry() cannot read " + path + " because the directory is not open",
          "1 DirNode::openDir() failed to open " + path + " errno: 20",
          "5 DirNode::readEntry() path: " + path,
          "1 DirNode::readEntry() failed to read " + path + " errno: 20",
          "1 DirNode::openDir() failed to close " + path + " before reopening. errno: 9",
          "5 DirNode::~DirNode() path: " + path,
          "1 DirNode::~DirNode() failed to close " + path + " errno: 9"));
}

}  // namespace
}  // namespace Veltro
