#include "Kiv/Model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/kiv/Lamp.h"

namespace Kiv {
namespace {
using testing::HasSubstr;

TEST(ValueTest, printedAndParsedBack) {
  Mark mark;
  mark.type = "it's";
  mark.mask = 2;
  struct {
    Value value;
    char const* text;
  } const cases[] = {
      {{}, "None"},
      {true, "True"},
      {false, "False"},
      {0, "0"},
      {-1, "-1"},
      {std::numeric_limits<S64>::min(), "-9223372036854775808"},
      {std::numeric_limits<U64>::max(), "18446744073709551615"},
      {0.1, "0.1"},
      {3.0, "3.0"},
      {-1e300, "-1e+300"},
      {HUGE_VAL, "inf"},
      {-HUGE_VAL, "-inf"},
      {"", "''"},
      {"it's\\", "'it\\'s\\\\'"},
      {std::string("\n\r\t\0\x1b\x7f", 6), "'\\n\\r\\t\\x00\\x1b\\x7f'"},
      {"\xc3\xa4\xff", "'\xc3\xa4\xff'"},
      {Value(Value::Table{}), "None"},
      {Value::Table{{1, "a"}, {"b", {}}}, "{1: 'a', 'b': None}"},
      {Value::Structure{"E", {}}, "Value('E', ** {})"},
      {ValueType<Mark>::of(mark), "Value('Test::Mark', ** {'type': 'it\\'s', 'mask': 2})"},
      {ValueType<std::map<S32, Mark>>::of({{-1, Mark()}}),
       "{-1: Value('Test::Mark', ** {'type': '', 'mask': 0})}"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(c.text, c.value.text());
    EXPECT_TRUE(c.value == Value::parsed(c.text));
  }
  EXPECT_TRUE(std::isnan(*Value::parsed(Value(std::nan("")).text()).real()));
  EXPECT_TRUE(mark == ValueType<Mark>::from(Value::parsed(ValueType<Mark>::of(mark).text())));
}

TEST(ValueTest, refusesOtherTextsAndSaysWhere) {
  std::string const deep(100000, '{');
  struct {
    std::string text;
    char const* why;
  } const cases[] = {
      {"", "column 1"},
      {"none", "\"none\""},
      {"1 2", "column 3: something follows"},
      {"18446744073709551616", "\"18446744073709551616\""},
      {"-9223372036854775809", "not a value"},
      {"1e999", "not a value"},
      {"0x10", "not a value"},
      {"'a", "does not end"},
      {"'a\\", "does not end"},
      {"'\\q'", "unknown escape"},
      {"'\\x1'", "unknown escape"},
      {"'\\x-1'", "unknown escape"},
      {"{1:2", "\"}\""},
      {"{1}", "column 3: \":\""},
      {"{1:2,}", "missing"},
      {"Value", "\"(\""},
      {"Value(1, ** {})", "\"'\""},
      {"Value('T', * {})", "\"*\""},
      {"Value('T', ** {1: 2})", "\"'\""},
      {deep, "too deeply"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    try {
      Value::parsed(c.text);
      ADD_FAILURE() << "accepted";
    } catch (RangeException const& fault) {
      EXPECT_THAT(fault.what(), HasSubstr(c.why));
    }
  }
}

TEST(ModelTest, listsWhatThereIs) {
  std::string text;
  for (auto const& member : Lamp::table().members()) {
    text += member.name + ":" + member.type + (member.writable ? " w" : "") +
            (member.logged ? " l\n" : "\n");
  }
  EXPECT_EQ(
      "name:Kiv::Name l\nlabel:Kiv::String w\nlevel:U32 w l\ntilt:double w l\non:bool w l\n"
      "peer:pointer w\nroom:{Kiv::String: U32} w l\nmark:{S32: Test::Mark} l\n"
      "rooms:{U32: Kiv::String}\nwaiting:{U32: U32} w\n",
      text);
  Model::Operation const& dim = Lamp::table().operation("doDim");
  EXPECT_EQ("U32 by bool reset " + dim.result,
            dim.parameters[0].type + " " + dim.parameters[0].name + " " + dim.parameters[1].type +
                " " + dim.parameters[1].name + " U32");
}

struct ReflectionTest : testing::Test {
  Ptr<Lamp> lamp = allocate<Lamp>("lamp");
  Reflection byName{*lamp};
};

TEST_F(ReflectionTest, readsWritesAndCalls) {
  byName.attributeIs("level", 9);
  byName.attributeIs("label", "desk");
  byName.attributeIs("tilt", 2);
  EXPECT_EQ(9u, lamp->level());
  EXPECT_EQ(2.0, lamp->tilt());
  EXPECT_EQ(Value("desk"), byName.attribute("label"));
  EXPECT_EQ(Value(9), byName.call("doDim", {{"reset", false}, {"by", 2}}));
  EXPECT_EQ(Value(7), byName.attribute("level"));
  EXPECT_EQ(Value("hello you"), byName.call("greeting", {{"who", "you"}}));
  EXPECT_THROW(byName.call("doFail"), ErrnoException);
  EXPECT_EQ(Value(), byName.attribute("peer"));
  EXPECT_EQ(Value(), byName.call("roomIs", {{"key", "x"}, {"value", 3}}));
  EXPECT_EQ("{3: 'x'}", byName.attribute("rooms").text());
  EXPECT_EQ(Value(3), byName.call("roomDel", {{"key", "x"}}));
  EXPECT_EQ(Value(1), byName.call("waitingEnq", {{"value", 8}}));
  EXPECT_EQ("{1: 8}", byName.attribute("waiting").text());
  byName.call("waitingMetadataIs", {{"head", 1}, {"tail", 41}});
  byName.call("waitingEnq", {{"value", 7}});
  EXPECT_EQ(Value(8), byName.call("waitingDeq"));
  EXPECT_EQ(7u, lamp->waiting(42));
}

TEST_F(ReflectionTest, refusalsSayWhichAndChangeNothing) {
  struct {
    std::function<void()> act;
    char const* what;
  } const cases[] = {
      {[&] { byName.attribute("x"); }, "Test::Lamp has no attribute \"x\""},
      {[&] { byName.attributeIs("x", 1); }, "Test::Lamp has no attribute \"x\""},
      {[&] { byName.attributeIs("name", "x"); }, "Test::Lamp.name is not writable"},
      {[&] { byName.attributeIs("room", 1); }, "Test::Lamp.room is not writable"},
      {[&] { byName.attributeIs("rooms", {}); }, "Test::Lamp.rooms is not writable"},
      {[&] { byName.attributeIs("level", -1); }, "Test::Lamp.level: -1 is not a U32"},
      {[&] { byName.attributeIs("level", 0x100000000u); },
       "Test::Lamp.level: 4294967296 is not a U32"},
      {[&] { byName.attributeIs("level", "3"); }, "Test::Lamp.level: '3' is not a U32"},
      {[&] { byName.attributeIs("level", 3.0); }, "Test::Lamp.level: 3.0 is not a U32"},
      {[&] { byName.attributeIs("on", 1); }, "Test::Lamp.on: 1 is not a bool"},
      {[&] { byName.attributeIs("peer", 4096); }, "Test::Lamp.peer: 4096 is not a pointer"},
      {[&] { byName.attributeIs("label", ""); }, "no label"},
      {[&] { byName.call("x"); }, "Test::Lamp has no operation \"x\""},
      {[&] { byName.call("markIs"); }, "Test::Lamp has no operation \"markIs\""},
      {[&] {
         byName.call("doDim", {{"by", 1}});
       },
       "Test::Lamp.doDim: parameter \"reset\" (bool) is missing"},
      {[&] {
         byName.call("doDim", {{"by", 1}, {"reset", true}, {"x", 1}});
       },
       "Test::Lamp.doDim: parameter \"x\" is unknown"},
      {[&] {
         byName.call("doDim", {{"by", 1}, {"by", 2}, {"reset", true}});
       },
       "Test::Lamp.doDim: parameter \"by\" comes twice"},
      {[&] {
         byName.call("doDim", {{"by", 1}, {"reset", "no"}});
       },
       "Test::Lamp.doDim: parameter \"reset\": 'no' is not a bool"},
      {[&] {
         byName.call("roomIs", {{"key", 1}, {"value", 1}});
       },
       "Test::Lamp.roomIs: parameter \"key\": 1 is not a Kiv::String"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.what);
    try {
      c.act();
      ADD_FAILURE() << "accepted";
    } catch (RangeException const& fault) {
      EXPECT_STREQ(c.what, fault.what());
    }
    EXPECT_EQ(5u, lamp->level());
    EXPECT_TRUE(lamp->room.all().empty());
  }
}

TEST(ModelTest, structuresAreCompleteOrRefused) {
  char const* const refused[] = {
      "Value('Test::Mark', ** {'type': 'x'})",
      "Value('Test::Mark', ** {'type': 'x', 'mask': 1, 'more': 1})",
      "Value('Test::Mark', ** {'type': 'x', 'mask': 1, 'mask': 1})",
      "Value('Test::Mark', ** {'type': 'x', 'mask': -1})",
      "Value('Other', ** {'type': 'x', 'mask': 1})",
      "1",
  };
  for (char const* const text : refused) {
    EXPECT_THROW(ValueType<Mark>::from(Value::parsed(text)), RangeException) << text;
  }
}

// A lamp with an attribute that has no row, though its base's rows are taken over.
struct Forgetful final : Lamp {
  Forgetful() : Lamp("forgetful") {}
  Attribute<U32> forgotten{*this};
  Model const& model() const override {
    static Model const& table = ModelOf<Forgetful>("Forgetful").base(Lamp::table()).made();
    return table;
  }
};
struct Complete final : Lamp {
  Complete() : Lamp("complete") {}
  Attribute<U32> extra{*this};
  Model const& model() const override {
    static Model const& table = ModelOf<Complete>("Complete")
                                    .base(Lamp::table())
                                    .attribute("extra", &Complete::extra, kWritable)
                                    .made();
    return table;
  }
};

TEST(ModelTest, tableAndClassAreHeldTogether) {
  try {
    Reflection byName(*allocate<Forgetful>());
    ADD_FAILURE() << "the attribute without a row was not found";
  } catch (RangeException const& fault) {
    EXPECT_THAT(fault.what(), HasSubstr("Forgetful has 9 attributes"));
  }
  Ptr<Complete> const complete = allocate<Complete>();
  Reflection byName(*complete);
  byName.attributeIs("extra", 3);
  EXPECT_EQ(Value(5), byName.call("doDim", {{"by", 1}, {"reset", true}}));
  EXPECT_EQ(4u, complete->extra() + complete->level());
  EXPECT_THROW(ModelOf<Mark>("M").attribute("a", &Mark::mask).attribute("a", &Mark::type),
               RangeException);
  EXPECT_THROW(ModelOf<Lamp>("L").queue("waiting", &Lamp::waiting, kLogged), RangeException);
  EXPECT_THROW(ModelOf<Lamp>("L").attribute("peer", &Lamp::peer, kLogged), RangeException);
}

}  // namespace
}  // namespace Kiv
