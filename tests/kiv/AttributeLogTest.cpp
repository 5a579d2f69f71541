#include "Kiv/AttributeLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/kiv/Lamp.h"
#include "tests/support/TempDir.h"

namespace Kiv {
namespace {
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char const* kLines =
    "Test::Lamp attribute log 1\n"
    "name = 'lamp'\n"
    "level = 7\n"
    "tilt = -0.5\n"
    "on = True\n"
    "room['a\\n=[x'] = 1\n"
    "room['b'] = 2\n"
    "mark[-3] = Value('Test::Mark', ** {'type': 't', 'mask': 9})\n";

Ptr<Lamp> filledLamp() {
  Ptr<Lamp> lamp = allocate<Lamp>("lamp");
  lamp->level.is(7);
  lamp->tilt.is(-0.5);
  lamp->on.is(true);
  lamp->peer.is(allocate<Lamp>("other"));
  lamp->room.is("b", 2);
  lamp->room.is("a\n=[x", 1);
  lamp->mark.is(-3, {"t", 9});
  lamp->waiting.enq(1);
  return lamp;
}

TEST(AttributeLogTest, keepsWhatTheTableSaysAndRestoresIt) {
  std::string const log = AttributeLog::text(*filledLamp());
  EXPECT_THAT(log, StartsWith(std::string(kLines) + "end "));
  Ptr<Lamp> const other = allocate<Lamp>("another");
  other->room.is("c", 3);
  other->waiting.enq(5);
  AttributeLog::restore(other, log);
  EXPECT_EQ(log, AttributeLog::text(*other));
  EXPECT_EQ(5u, other->waiting(1));

  std::string const empty = AttributeLog::text(*allocate<Lamp>("empty"));
  EXPECT_THAT(empty, HasSubstr("\nroom = None\nmark = None\nend "));
  AttributeLog::restore(other, empty);
  EXPECT_TRUE(other->room.all().empty());

  // As after an upgrade that added attributes, or from a text editor: what it does not name stays.
  AttributeLog::restore(other, log);
  AttributeLog::restore(other, "Test::Lamp attribute log 1\non=False\nroom [ 'c' ] = 3\nend\n");
  EXPECT_FALSE(other->on());
  EXPECT_EQ(7u, other->level());
  EXPECT_THAT(other->room.all(), ElementsAre(testing::Pair("c", 3u)));
}

// Notifiees find all of it in place; only what changed is told.
TEST(AttributeLogTest, notifiesOfChangesWhenAllIsInPlace) {
  struct Watch : Lamp::Notifiee {
    using Notifiee::Notifiee;
    void onLevel() override { see("level"); }
    void onRoom(String const& key) override { see(key.stdString()); }
    void see(std::string const& what) {
      seen.push_back(what + (notifier().mark.has(-3) ? "" : " too early"));
    }
    std::vector<std::string> seen;
  };
  Ptr<Lamp> const lamp = allocate<Lamp>("lamp");
  lamp->room.is("b", 2);
  lamp->room.is("gone", 2);
  Ptr<Watch> const watch = allocate<Watch>(lamp);
  std::string const log = AttributeLog::text(*filledLamp());
  AttributeLog::restore(lamp, log);
  EXPECT_THAT(watch->seen, ElementsAre("level", "a\n=[x", "gone"));
  AttributeLog::restore(lamp, log);
  EXPECT_EQ(3u, watch->seen.size());
}

TEST(AttributeLogTest, damagedLogsAreRefusedWhole) {
  std::string const good = AttributeLog::text(*filledLamp()), lines = kLines;
  auto const with = [&](std::string const& more) { return lines + more + "\nend\n"; };
  struct {
    char const* name;
    std::string log;
    char const* why;
  } const cases[] = {
      {"more behind the end", good + "\n", "line 9: something follows"},
      {"a checksum that is not one", lines + "end 12\n", "line 9: the lines before it"},
      {"attribute that is not kept", with("peer = None"), "line 9: \"peer\" is not kept"},
      {"key twice", with("room['b'] = 2"), "line 9: key 'b' comes twice"},
      {"entry after None", "Test::Lamp attribute log 1\nroom = None\nroom['b'] = 1\nend\n",
       "line 3: \"room\" comes twice"},
      {"a table for a collection", with("room = {'a': 1}"), "line 9: a key is missing"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Ptr<Lamp> const lamp = allocate<Lamp>("untouched");
    std::string const before = AttributeLog::text(*lamp);
    EXPECT_THAT([&] { AttributeLog::restore(lamp, c.log); },
                testing::ThrowsMessage<RangeException>(HasSubstr(c.why)));
    EXPECT_EQ(before, AttributeLog::text(*lamp));
  }
  // Any byte changed or lost.
  for (std::size_t i = 0; i < good.size(); ++i) {
    std::string changed = good;
    changed[i] = char(changed[i] ^ 1);
    EXPECT_THROW(AttributeLog::restore(allocate<Lamp>("x"), changed), RangeException) << i;
    EXPECT_THROW(AttributeLog::restore(allocate<Lamp>("x"), good.substr(0, i)), RangeException);
  }
}

// The old log stays whatever happens to the new one.
TEST(AttributeLogFileTest, isReplacedWholeOrNotAtAll) {
  Veltro::TempDir const temp;
  std::string const path = temp.path("lamp.log");
  Ptr<Lamp> const lamp = filledLamp(), other = allocate<Lamp>("x");
  EXPECT_THROW(AttributeLog::load(other, path), ErrnoException);
  AttributeLog::save(*lamp, path);
  for (U32 i = 0; i < 5000; ++i) lamp->room.is("key " + std::to_string(i), i);
  std::string const beside = path + "." + std::to_string(::getpid()) + ".new";
  std::filesystem::create_directory(beside);  // cannot be opened for writing
  EXPECT_THROW(AttributeLog::save(*lamp, path), ErrnoException);
  AttributeLog::load(other, path);
  EXPECT_EQ(AttributeLog::text(*filledLamp()), AttributeLog::text(*other));

  std::filesystem::remove(beside);
  std::filesystem::create_symlink(temp.path("planted"), beside);
  AttributeLog::save(*lamp, path);  // replaces the link, does not follow it
  AttributeLog::load(other, path);
  EXPECT_EQ(AttributeLog::text(*lamp), AttributeLog::text(*other));
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(temp.path()), {}));
}

}  // namespace
}  // namespace Kiv
