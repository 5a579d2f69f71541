#include "Veltro/DirNode.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <set>

#include "Veltro/UtilCpp.h"
#include "tests/support/Child.h"
#include "tests/support/RecordingHandler.h"
#include "tests/support/TempDir.h"

namespace Veltro {
namespace {

using testing::ElementsAre;

struct DirNodeTest : testing::Test {
  ~DirNodeTest() override { EXPECT_EQ(descriptors, openDescriptors()); }
  std::vector<std::string> records() { return std::exchange(handler.records, {}); }
  int const descriptors = openDescriptors();
  TempDir folder;
  RecordingHandler handler;
};

std::multiset<std::string> namesIn(DirNode const& node) {
  std::multiset<std::string> names;
  errno = EIO;  // of before: the end is no error
  while (dirent const* const entry = node.readEntry()) names.insert(entry->d_name);
  return names;
}

TEST_F(DirNodeTest, readsAllEntriesAndStartsOver) {
  for (char const* name : {"a", "b\nc"}) Util::touch(handler, folder.path(name));
  handler.enabledIs(5, false);
  DirNode node(handler, folder.path());
  for (int round = 0; round < 2; ++round) {
    EXPECT_THAT(namesIn(node), ElementsAre(".", "..", "a", "b\nc"));
    EXPECT_TRUE(node.openDir());
  }
  EXPECT_THAT(records(), testing::IsEmpty());
}

TEST_F(DirNodeTest, whatIsNoDirectoryIsNotOpen) {
  std::string const path = folder.path("file");
  Util::touch(handler, path);
  {
    DirNode node(handler, path);
    EXPECT_FALSE(node.isOpen());
    EXPECT_EQ(nullptr, node.readEntry());
    EXPECT_FALSE(node.openDir());
  }
  EXPECT_THAT(records(), ElementsAre("5 DirNode::DirNode() path: " + path,
                                     "1 DirNode::DirNode() failed to open " + path + " errno: 20",
                                     "5 DirNode::readEntry() path: " + path,
                                     "1 DirNode::readEntry() cannot read " + path +
                                         " because the directory is not open",
                                     "1 DirNode::openDir() failed to open " + path + " errno: 20",
                                     "5 DirNode::~DirNode() path: " + path));
}

TEST_F(DirNodeTest, descriptorsTakenAwayFromUnderIt) {
  std::string const path = folder.path();
  int const under = nextDescriptors()[0];
  {
    DirNode node(handler, path);
    ::dup2(0, under);
    EXPECT_EQ(nullptr, node.readEntry());
    ::close(under);
    EXPECT_TRUE(node.openDir());
    ::close(under);
  }
  EXPECT_THAT(
      records(),
      ElementsAre("5 DirNode::DirNode() path: " + path, "5 DirNode::readEntry() path: " + path,
                  "1 DirNode::readEntry() failed to read " + path + " errno: 20",
                  "1 DirNode::openDir() failed to close " + path + " before reopening. errno: 9",
                  "5 DirNode::~DirNode() path: " + path,
                  "1 DirNode::~DirNode() failed to close " + path + " errno: 9"));
}

}  // namespace
}  // namespace Veltro
