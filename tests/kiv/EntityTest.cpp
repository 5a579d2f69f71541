#include "Kiv/Entity.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/kiv/Lamp.h"

namespace Kiv {
namespace {
using testing::ElementsAre;

using Calls = std::vector<std::string>;

/// Writes down each reaction, then does what it was told to.
struct Watch : Lamp::Notifiee {
  Watch(Ptr<Lamp> const& lamp, std::string theName, Calls& theCalls)
      : Lamp::Notifiee(lamp), name(std::move(theName)), calls(theCalls) {}
  void onLevel() override { react(std::to_string(notifier().level())); }
  void onRoom(String const& key) override { react(key.stdString()); }
  void react(std::string const& what) {
    calls.push_back(name + what);
    auto const reaction = then;  // a copy, which outlives this
    if (reaction) reaction();
  }
  void onNotificationException() override {
    calls.push_back(name + "!");
    if (!answers) Lamp::Notifiee::onNotificationException();
  }
  std::string const name;
  Calls& calls;
  std::function<void()> then;
  bool answers = true;
};

struct EntityTest : testing::Test {
  Ptr<Watch> watch(char const* name) { return allocate<Watch>(lamp, name, calls); }
  Calls calls;
  Ptr<Lamp> lamp = allocate<Lamp>("lamp");
  Ptr<Watch> a = watch("a"), b = watch("b"), c = watch("c"), d;
};

TEST_F(EntityTest, tellsOfChangesOnlyInOrderOfJoining) {
  lamp->level.is(5);
  lamp->level.is(6);
  b = nullptr;
  d = watch("d");
  lamp->level.is(7);
  EXPECT_THAT(calls, ElementsAre("a6", "b6", "c6", "a7", "c7", "d7"));
  calls.clear();
  c = d = nullptr;
  for (U32 const value : {1u, 1u, 2u}) lamp->room.is("x", value);
  EXPECT_EQ(0u, lamp->room.del("y"));
  EXPECT_EQ(2u, lamp->room.del("x"));
  lamp->room.is("", 0);
  lamp->room.is("z", 3);
  Lamp* const raw = lamp.ptr();
  lamp = nullptr;  // the notifiee keeps it
  a->then = [&] { a = nullptr; };
  raw->room.delAll();  // which the first reaction ends
  EXPECT_THAT(calls, ElementsAre("ax", "ax", "ax", "a", "az", "a"));
  EXPECT_THROW(watch("x"), RangeException);
}

// Numbers whose hashes crowd, in and out of a table that grows, beside the standard's map.
TEST(CollectionTest, findsWhatWasNotTakenOut) {
  Ptr<Lamp> const lamp = allocate<Lamp>("lamp");
  std::map<S32, std::string> expected;
  std::mt19937 random(1);
  for (int step = 0; step < 20000; ++step) {
    int const limit = step % 4000 < 2000 ? 600 : 40;  // grows, and dwindles
    S32 const key = static_cast<S32>(random() % 600) * 4096;
    std::string const value = "v" + std::to_string(step);
    if (static_cast<int>(random() % 600) < limit) {
      lamp->mark.is(key, Mark{value, 0});
      expected[key] = value;
    } else {
      ASSERT_EQ(expected[key], lamp->mark.del(key).type.stdString()) << "step " << step;
      expected.erase(key);
    }
    S32 const other = static_cast<S32>(random() % 600) * 4096;
    ASSERT_EQ(expected.count(other) > 0, lamp->mark.has(other)) << "step " << step;
  }
  EXPECT_EQ(expected.size(), lamp->mark.all().size());
}

TEST_F(EntityTest, whatReactionsMayDo) {
  auto const allGo = [&] {
    a = b = c = nullptr;
    lamp = nullptr;
  };
  struct {
    char const* name;
    std::function<void()> then;
    Calls calls;
  } const cases[] = {
      {"add one, who hears of the next change", [&] { d = watch("d"); }, {"a6", "b6", "c6"}},
      {"remove the next one within a nested change",
       [&] {
         if (lamp->level() == 9) b = nullptr;
         lamp->level.is(9);
       },
       {"a6", "a9", "c9", "c9"}},
      {"let the entity go within a nested change",
       [&] {
         a->then = allGo;
         lamp->level.is(9);
       },
       {"a6", "a9"}},
      {"throw, and answer", [&] { throw RangeException("x"); }, {"a6", "a!", "b6", "c6"}},
      {"die throwing, unable to answer",
       [&] {
         a = nullptr;
         throw RangeException("x");
       },
       {"a6", "b6", "c6", "thrown x"}},
      {"leave exceptions unanswered: all are told, then the first is thrown",
       [&] {
         a->answers = b->answers = false;
         b->then = [] { throw RangeException("y"); };
         throw RangeException("x");
       },
       {"a6", "a!", "b6", "b!", "c6", "thrown x"}},
  };
  for (auto const& example : cases) {
    SCOPED_TRACE(example.name);
    a = b = c = d = nullptr;
    lamp = allocate<Lamp>("lamp");
    a = watch("a"), b = watch("b"), c = watch("c");
    calls.clear();
    a->then = example.then;
    try {
      lamp->level.is(6);
    } catch (RangeException const& thrown) {
      calls.push_back(std::string("thrown ") + thrown.what());
    }
    EXPECT_EQ(example.calls, calls);
  }
}

TEST(QueueTest, indicesGrowAndEnd) {
  Ptr<Lamp> const lamp = allocate<Lamp>("lamp");
  auto& queue = lamp->waiting;
  for (U32 const index : {1u, 2u, 3u}) EXPECT_EQ(index, queue.enq(10 * index));
  EXPECT_EQ(20u, queue.del(2));
  EXPECT_EQ(10u, queue.deq());
  EXPECT_EQ(3u, queue.metadata().head);
  queue.is(2, 22);
  EXPECT_EQ(22u, queue(2));
  EXPECT_THROW(queue.is(4, 1), RangeException);
  EXPECT_THROW(queue.metadataIs({1, 2}), RangeException);
  queue.metadataIs({3, 0xffffffff});
  EXPECT_EQ(30u, queue.deq());
  EXPECT_EQ(0u, queue.deq());
  EXPECT_THROW(queue.enq(60), RangeException) << "an index was given out twice";
}

}  // namespace
}  // namespace Kiv
