#include "Kiv/AttributeLog.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string_view>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/Model.h"
#include "ValueParser.h"

namespace Kiv {
namespace {

std::string firstLine(Model const& model) { return model.typeName() + " attribute log 1"; }

std::string checksum(std::string_view text) {
  U64 hash = 0xcbf29ce484222325u;
  for (char const c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3u;
  char digits[17];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(hash));
  return digits;
}

void appendMember(std::string& log, Model::Member const& member, Value const& value) {
  bool const entries = member.kind == Model::Kind::collection && !value.isNone();
  if (!entries) {
    log += member.name + " = " + value.text() + "\n";
    return;
  }
  for (auto const& [key, entry] : *value.table()) {
    log += member.name + "[" + key.text() + "] = " + entry.text() + "\n";
  }
}

/// Takes a log apart line by line, and says which line a fault is in.
class Lines {
 public:
  explicit Lines(std::string_view text) : text_(text) {}

  /// The next line; there must be one, and it must end.
  std::string_view next() {
    ++number_;
    begin_ = end_;
    std::size_t const newline = text_.find('\n', begin_);
    if (newline == std::string_view::npos) fail("the log is cut short");
    end_ = newline + 1;
    return text_.substr(begin_, newline - begin_);
  }
  std::string_view before() const { return text_.substr(0, begin_); }
  bool atEnd() const { return end_ == text_.size(); }

  [[noreturn]] void fail(std::string const& why) const {
    throw RangeException("attribute log line " + std::to_string(number_) + ": " + why);
  }

 private:
  std::string_view text_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::size_t number_ = 0;
};

/// One member's lines.
struct Gathered {
  Model::Member const* member;
  std::unique_ptr<detail::Restored> restored;
  bool whole = false;  // has been given a value that nothing may be added to
};

template <typename MakeRestored>
void takeLine(std::string_view line, Model const& model, std::vector<Gathered>& gathered,
              MakeRestored const& restored) {
  std::size_t const nameEnd = std::min(line.find_first_of("[= "), line.size());
  Model::Member const& member = model.member(std::string(line.substr(0, nameEnd)));
  if (!member.logged) throw RangeException("\"" + member.name + "\" is not kept in logs");
  auto at = std::find_if(gathered.begin(), gathered.end(),
                         [&](Gathered const& g) { return g.member == &member; });
  bool const first = at == gathered.end();
  if (first) at = gathered.insert(at, {&member, restored(member)});

  ValueParser parser(line.substr(nameEnd));
  bool const collection = member.kind == Model::Kind::collection;
  Value key;
  bool const hasKey = collection && parser.accept('[');
  if (hasKey) {
    key = parser.value();
    parser.expect(']');
  }
  parser.expect('=');
  Value const value = parser.value();
  parser.end();

  if (collection && !hasKey && !value.isNone()) throw RangeException("a key is missing");
  if (at->whole || (!hasKey && !first)) {
    throw RangeException("\"" + member.name + "\" comes twice");
  }
  at->whole = !hasKey;
  at->restored->take(hasKey ? &key : nullptr, value);
}

bool isEnd(std::string_view line) {
  return line == "end" || (line.substr(0, 4) == "end " && line.substr(0, 5) != "end =");
}

void checkEnd(std::string_view line, Lines const& lines) {
  if (line != "end" && line != "end " + checksum(lines.before())) {
    lines.fail("the lines before it were changed: the checksum is another");
  }
  if (!lines.atEnd()) lines.fail("something follows the end");
}

}  // namespace

std::string AttributeLog::text(Entity const& entity) {
  Model const& model = entity.model();
  void* const object = model._checked(const_cast<Entity&>(entity));
  std::string log = firstLine(model) + "\n";
  for (Model::Member const& member : model.members()) {
    if (member.logged) appendMember(log, member, model._get(member, object));
  }
  return log + "end " + checksum(log) + "\n";
}

void AttributeLog::restore(Ptr<Entity> const& entity, std::string const& text) {
  Ptr<Entity> const kept = entity;  // past the notifications
  Model const& model = kept->model();
  void* const object = model._checked(*kept);
  auto const restored = [&](Model::Member const& m) { return model._restored(m, object); };

  Lines lines(text);
  if (lines.next() != firstLine(model)) lines.fail("not \"" + firstLine(model) + "\"");
  std::vector<Gathered> gathered;
  std::string_view line = lines.next();
  for (; !isEnd(line); line = lines.next()) {
    try {
      takeLine(line, model, gathered, restored);
    } catch (RangeException const& fault) {
      lines.fail(fault.what());
    }
  }
  checkEnd(line, lines);

  for (Gathered& member : gathered) member.restored->commit();
  kept->handleRestored();
  for (Gathered& member : gathered) member.restored->notify();
}

}  // namespace Kiv
