#include <gtest/gtest.h>

#include "Veltro/UtilCpp.h"

namespace Veltro {
namespace {

TEST(HashTest, bytesFrom0x80OnAreSignExtended) {
  struct {
    char const* name;
    std::string text;
    U32 hash;
    U64 hash64;
  } const cases[] = {
      {"empty", "", 0x811c9dc5u, 0xcbf29ce484222325u},
      {"as in the textbook", "foobar", 0xbf9cf968u, 0x85944171f73967e8u},
      {"0xff", "\xff", 0xf9f3a14eu, 0x509c41b379fe466eu},
      {"0x7f 0x80", "\x7f\x80", 0xaca4d6cau, 0xf719b5f84a7c24eau},
      {"a zero byte inside", std::string("a\0b", 3), 0x10f3abd2u, 0xe5d29919042666b2u},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.hash, Util::hash(c.text));
    EXPECT_EQ(c.hash, Util::hash(c.text.data(), c.text.size()));
    EXPECT_EQ(c.hash64, Util::hash64(c.text));
    EXPECT_EQ(c.hash64, Util::hash64(c.text.data(), c.text.size()));
  }
}

TEST(HashTest, hexDumpInGroupsOfFour) {
  unsigned char const bytes[] = {0x00, 0x01, 0x7f, 0x80, 0xff, 0x10, 0x20, 0x30, 0x40};
  struct {
    int length;
    char const* text;
  } const cases[] = {
      {-1, ""},
      {0, ""},
      {1, "00"},
      {4, "00017f80"},
      {5, "00017f80 ff"},
      {8, "00017f80 ff102030"},
      {9, "00017f80 ff102030 40"},
  };
  for (auto const& c : cases) EXPECT_EQ(c.text, dumpHex(bytes, c.length));
}

}  // namespace
}  // namespace Veltro
