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
  Mark const mark{"it's", 2};
  struct {
    Value value;
    char const* text;
  } const cases[] = {
      {{}, "None"},
      {false, "False"},
      {-1, "-1"},
      {std::numeric_limits<S64>::min(), "-9223372036854775808"},
      {std::numeric_limits<U64>::max(), "18446744073709551615"},
      {3.0, "3.0"},
      {-1e300, "-1e+300"},
      {-HUGE_VAL, "-inf"},
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
      {"1 2", "column 3: something follows"},
      {"18446744073709551616", "\"18446744073709551616\""},
      {"1e999", "not a value"},
      {"'a", "does not end"},
      {"'\\q'", "unknown escape"},
      {"'\\x-1'", "unknown escape"},
      {"{1}", "column 3: \":\""},
      {"{1:2,}", "missing"},
      {"Value(1, ** {})", "\"'\""},
      {"Value('T', * {})", "\"*\""},
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

  /// A string reads the attribute, {'name': value} sets it, Value('operation', ** {...}) calls.
  Value applied(std::string const& text) {
    Value const value = Value::parsed(text);
    if (value.string() != nullptr) return byName.attribute(*value.string());
    if (value.structure() != nullptr) {
      return byName.call(value.structure()->type, value.structure()->fields);
    }
    auto const& [name, attribute] = value.table()->front();
    byName.attributeIs(*name.string(), attribute);
    return {};
  }
};

TEST_F(ReflectionTest, readsWritesAndCalls) {
  struct {
    char const* asked;
    char const* result;
  } const cases[] = {
      {"{'level': 9}", "None"},
      {"{'label': 'desk'}", "None"},
      {"'label'", "'desk'"},
      {"{'tilt': 2}", "None"},
      {"'tilt'", "2.0"},
      {"Value('doDim', ** {'reset': False, 'by': 2})", "9"},
      {"'level'", "7"},
      {"Value('greeting', ** {'who': 'you'})", "'hello you'"},
      {"'peer'", "None"},
      {"Value('roomIs', ** {'key': 'x', 'value': 3})", "None"},
      {"'rooms'", "{3: 'x'}"},
      {"Value('roomDel', ** {'key': 'x'})", "3"},
      {"Value('waitingEnq', ** {'value': 8})", "1"},
      {"Value('waitingMetadataIs', ** {'head': 1, 'tail': 41})", "None"},
      {"Value('waitingEnq', ** {'value': 7})", "42"},
      {"Value('waitingDeq', ** {})", "8"},
      {"'waiting'", "{42: 7}"},
  };
  for (auto const& c : cases) EXPECT_EQ(c.result, applied(c.asked).text()) << c.asked;
  EXPECT_THROW(byName.call("doFail"), ErrnoException);
}

TEST_F(ReflectionTest, refusalsSayWhichAndChangeNothing) {
  struct {
    char const* asked;
    char const* what;
  } const cases[] = {
      {"'x'", " has no attribute \"x\""},
      {"{'x': 1}", " has no attribute \"x\""},
      {"{'name': 'x'}", ".name is not writable"},
      {"{'room': 1}", ".room is not writable"},
      {"{'rooms': None}", ".rooms is not writable"},
      {"{'level': -1}", ".level: -1 is not a U32"},
      {"{'level': 4294967296}", ".level: 4294967296 is not a U32"},
      {"{'level': '3'}", ".level: '3' is not a U32"},
      {"{'level': 3.0}", ".level: 3.0 is not a U32"},
      {"{'on': 1}", ".on: 1 is not a bool"},
      {"{'peer': 4096}", ".peer: 4096 is not a pointer"},
      {"{'label': ''}", "no label"},
      {"Value('markIs', ** {})", " has no operation \"markIs\""},
      {"Value('doDim', ** {'by': 1})", ".doDim: parameter \"reset\" (bool) is missing"},
      {"Value('doDim', ** {'by': 1, 'reset': True, 'x': 1})", ".doDim: parameter \"x\" is unknown"},
      {"Value('doDim', ** {'by': 1, 'by': 2, 'reset': True})",
       ".doDim: parameter \"by\" comes twice"},
      {"Value('doDim', ** {'by': 1, 'reset': 'no'})",
       ".doDim: parameter \"reset\": 'no' is not a bool"},
      {"Value('roomIs', ** {'key': 1, 'value': 1})",
       ".roomIs: parameter \"key\": 1 is not a Kiv::String"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.asked);
    try {
      applied(c.asked);
      ADD_FAILURE() << "accepted";
    } catch (RangeException const& fault) {
      EXPECT_EQ((*c.what == 'n' ? "" : "Test::Lamp") + std::string(c.what), fault.what());
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
struct Forgetful : Lamp {
  Forgetful() : Lamp("forgetful") {}
  Attribute<U32> extra{*this};
  Model const& model() const override {
    static Model const& table = ModelOf<Forgetful>("Forgetful").base(Lamp::table()).made();
    return table;
  }
};
struct Complete final : Forgetful {
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
