#include "tools/veltro/Reply.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <functional>

#include "tests/support/TempDir.h"
#include "tests/tools/Tool.h"

namespace Veltro {
namespace {

namespace Format = IntrospectionFormat;

/// An answer of one task in three sections.
struct Answer {
  Format::Header header{{}, Format::kVersion, sizeof(Format::Header), 1, 1, 1, 0, 3, 0, 0, 0, {},
                        {}};
  Format::Section sections[3] = {{U32(Format::Kind::strings), 1, 8, 160},
                                 {U32(Format::Kind::schedulers), 24, 0, 168},
                                 {U32(Format::Kind::tasks), 104, 1, 168}};
  char strings[8] = {'b', 'e', 'a', 't', '\033', 'c', 0, 'x'};
  Format::Task task{};
};
static_assert(offsetof(Answer, strings) == 160 && offsetof(Answer, task) == 168);

std::vector<char> bytesOf(Answer const& answer) {
  auto const* const begin = reinterpret_cast<char const*>(&answer);
  return std::vector<char>(begin, begin + sizeof answer);
}

TEST(ReplyTest, isWholeOrRefused) {
  Answer sound;
  std::memcpy(sound.header.magic, Format::kMagic, sizeof sound.header.magic);
  std::memset(sound.header.program, 'p', sizeof sound.header.program);
  Operator::Reply const reply(bytesOf(sound));
  EXPECT_EQ(1u, reply.records<Format::Task>(Format::Kind::tasks).size());
  EXPECT_EQ("beat?c", reply.string(0));  // no terminal obeys it
  EXPECT_EQ("x", reply.string(7));       // not ended, but cut
  EXPECT_EQ("?", reply.string(8));
  EXPECT_EQ(std::string(31, 'p'), reply.header().program);

  std::function<void(Answer&)> const damages[] = {
      [](Answer& a) { a.header.magic[0] = 'v'; },
      [](Answer& a) { a.header.version = 2; },
      [](Answer& a) { a.header.headerBytes = ~U32{15}; },  // wraps in 32 bits
      [](Answer& a) { a.header.sectionCount = 1000; },
      [](Answer& a) { a.sections[0].recordBytes = 0, a.sections[0].count = ~U32{0}; },
      [](Answer& a) { a.sections[1].offset = ~U32{0}; },
      [](Answer& a) { a.sections[2].count = 2; },
      [](Answer& a) { a.sections[2].recordBytes = 105; },
      [](Answer& a) { a.sections[2].count = 0x80000000, a.sections[2].recordBytes = 2; },
  };
  for (auto const& damage : damages) {
    Answer damaged = sound;
    damage(damaged);
    EXPECT_THROW(Operator::Reply{bytesOf(damaged)}, std::runtime_error) << &damage - damages;
  }
  auto bytes = bytesOf(sound);
  bytes.resize(sizeof(Format::Header) - 1);
  EXPECT_THROW(Operator::Reply{bytes}, std::runtime_error);
}

TEST(ReplyTest, whatIsNoAgentsIsPassedOver) {
  TempDir const temp;
  for (char const* name : {"pipe", "short", "link", "missing"}) {
    std::ofstream(temp.path(name) + ".control");
  }
  ASSERT_EQ(0, ::mkfifo((temp.path("pipe") + ".records").c_str(), 0600));
  std::ofstream(temp.path("short") + ".records") << "VELTROin";
  ASSERT_EQ(0, ::symlink("/dev/zero", (temp.path("link") + ".records").c_str()));
  Outcome const outcome = veltro("agents --dir " + temp.path());
  EXPECT_EQ(0, outcome.status);
  for (char const* text : {"pipe.records is not a regular file", "short.records holds no records",
                           "link.records: Too many levels of symbolic links", "AGENT"}) {
    EXPECT_NE(std::string::npos, outcome.text.find(text)) << outcome.text;
  }
}

}  // namespace
}  // namespace Veltro
