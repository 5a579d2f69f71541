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
      {std::numeric_limits<S64>::min(), "-9223372036854775808"},
      {std::numeric_limits<U64>::max(), "18446744073709551615"},
      {-HUGE_VAL, "-inf"},
      {"it's\\", "'it\\'s\\\\'"},
      {std::string("\n\r\t\0\x1b\x7f", 6), "'\\n\\r\\t\\x00\\x1b\\x7f'"},
      {"\xc3\xa4\xff", "'\xc3\xa4\xff'"},
      {Value::Table{{1, "a"}, {"b", {}}}, "{1: 'a', 'b': None}"},
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
  std::pair<std::string, char const*> const cases[] = {
      {"1 2", "column 3: something follows"},
      {"18446744073709551616", "\"18446744073709551616\""},
      {"1e999", "not a value"},
      {"'\\x-1'", "unknown escape"},
      {"{1}", "column 3: \":\""},
      {"Value('T', * {})", "\"*\""},
      {std::string(100000, '{'), "too deeply"},
  };
  for (auto const& [text, why] : cases) {
    EXPECT_THAT([&text = text] { Value::parsed(text); },
                testing::ThrowsMessage<RangeException>(HasSubstr(why)));
  }
}

/// A string reads the attribute, {'name': value} sets it, Value('operation', ** {...}) calls.
std::string answer(Reflection& byName, std::string const& asked) {
  try {
    Value const value = Value::parsed(asked);
    if (value.string() != nullptr) return byName.attribute(*value.string()).text();
    if (value.structure() != nullptr) {
      return byName.call(value.structure()->type, value.structure()->fields).text();
    }
    auto const& [name, attribute] = value.table()->front();
    byName.attributeIs(*name.string(), attribute);
    return "";
  } catch (RangeException const& refusal) {
    return refusal.what();
  }
}

// That what is refused changes nothing is asked of the fuzz target `reflection`.
TEST(ReflectionTest, readsWritesCallsAndRefuses) {
  std::pair<char const*, char const*> const cases[] = {
      {"{'label': 'desk'}", ""},
      {"'label'", "'desk'"},
      {"{'tilt': 2}", ""},
      {"'tilt'", "2.0"},
      {"Value('doDim', ** {'reset': False, 'by': 2})", "5"},
      {"'level'", "3"},
      {"Value('greeting', ** {'who': 'you'})", "'hello you'"},
      {"Value('roomIs', ** {'key': 'x', 'value': 3})", "None"},
      {"'rooms'", "{3: 'x'}"},
      {"Value('roomDel', ** {'key': 'x'})", "3"},
      {"Value('waitingEnq', ** {'value': 8})", "1"},
      {"Value('waitingDeq', ** {})", "8"},
      {"'waiting'", "None"},
      {"'x'", "Test::Lamp has no attribute \"x\""},
      {"{'name': 'x'}", "Test::Lamp.name is not writable"},
      {"{'room': 1}", "Test::Lamp.room is not writable"},
      {"{'level': 4294967296}", "Test::Lamp.level: 4294967296 is not a U32"},
      {"{'label': ''}", "no label"},
      {"Value('markIs', ** {})", "Test::Lamp has no operation \"markIs\""},
      {"Value('doDim', ** {'by': 1})", "Test::Lamp.doDim: parameter \"reset\" (bool) is missing"},
      {"Value('doDim', ** {'by': 1, 'reset': True, 'x': 1})",
       "Test::Lamp.doDim: parameter \"x\" is unknown"},
      {"Value('doDim', ** {'by': 1, 'by': 2, 'reset': True})",
       "Test::Lamp.doDim: parameter \"by\" comes twice"},
      {"Value('doDim', ** {'by': 1, 'reset': 'no'})",
       "Test::Lamp.doDim: parameter \"reset\": 'no' is not a bool"},
  };
  Ptr<Lamp> const lamp = allocate<Lamp>("lamp");
  Reflection byName(*lamp);
  for (auto const& [asked, answered] : cases) EXPECT_EQ(answered, answer(byName, asked)) << asked;
  EXPECT_THROW(byName.call("doFail"), ErrnoException);
  for (char const* const refused : {
           "Value('Test::Mark', ** {'type': 'x'})",
           "Value('Test::Mark', ** {'type': 'x', 'mask': 1, 'more': 1})",
           "Value('Test::Mark', ** {'type': 'x', 'mask': 1, 'mask': 1})",
           "Value('Other', ** {'type': 'x', 'mask': 1})",
       }) {
    EXPECT_THROW(ValueType<Mark>::from(Value::parsed(refused)), RangeException) << refused;
  }
}

/// One more attribute, with a row beside those of the base.
struct Extended : Lamp {
  Extended() : Lamp("extended") {}
  Attribute<U32> extra{*this};
  Model const& model() const override {
    static Model const& table = ModelOf<Extended>("Extended")
                                    .base(Lamp::table())
                                    .attribute("extra", &Extended::extra, kWritable)
                                    .made();
    return table;
  }
};
struct Forgetful final : Extended {
  Attribute<U32> withoutARow{*this};
};

TEST(ModelTest, tableAndClassAreHeldTogether) {
  EXPECT_THAT([] { Reflection byName(*allocate<Forgetful>()); },
              testing::ThrowsMessage<RangeException>(HasSubstr("Extended has 10 attributes")));
  Ptr<Extended> const extended = allocate<Extended>();
  Reflection byName(*extended);
  byName.attributeIs("extra", 3);
  EXPECT_EQ(Value(5), byName.call("doDim", {{"by", 1}, {"reset", true}}));
  EXPECT_EQ(4u, extended->extra() + extended->level());
  EXPECT_THROW(ModelOf<Mark>("M").attribute("a", &Mark::mask).attribute("a", &Mark::type),
               RangeException);
  EXPECT_THROW(ModelOf<Lamp>("L").queue("waiting", &Lamp::waiting, kLogged), RangeException);
  EXPECT_THROW(ModelOf<Lamp>("L").attribute("peer", &Lamp::peer, kLogged), RangeException);
}

}  // namespace
}  // namespace Kiv
