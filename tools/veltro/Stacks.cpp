// veltro stacks: makes the stacks in a text readable: demangled, with file and line, equal ones
// merged and ranked.

#include <cxxabi.h>
#include <elfutils/libdwfl.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <regex>

#include "Command.h"
#include "Json.h"

namespace Operator {
namespace {

/// As it stands in the text: OBJECT(SYMBOL+0xOFFSET)[0xADDRESS], or the address alone.
struct Frame {
  std::string object;
  std::string symbol;  // "unknown": the offset is from the object's start
  unsigned long long offset = 0;
  std::string address;
  bool operator<(Frame const& o) const {
    if (object.empty() && o.object.empty()) return address < o.address;
    return std::tie(object, symbol, offset) < std::tie(o.object, o.symbol, o.offset);
  }
};
using Stack = std::vector<Frame>;

/// Frames that follow each other, on one line or on several, are one stack.
std::map<Stack, std::size_t> stacksIn(std::istream& text) {
  static std::regex const frame(
      R"((?:([^\s()\[\]]*)\(([^()\s]*)\+0x([0-9a-f]+)\))?\[(0x[0-9a-f]+)\])");
  std::map<Stack, std::size_t> stacks;
  Stack stack;
  auto const ended = [&] {
    if (!stack.empty()) ++stacks[stack];
    stack.clear();
  };
  for (std::string line; std::getline(text, line);) {
    auto found = std::sregex_iterator(line.begin(), line.end(), frame);
    bool const alone =
        found != std::sregex_iterator() && found->length() == std::ptrdiff_t(line.size());
    if (!alone) ended();
    for (; found != std::sregex_iterator(); ++found) {
      auto const& match = *found;
      stack.push_back({match[1], match[2],
                       match[3].matched ? std::stoull(match[3], nullptr, 16) : 0, match[4]});
    }
    if (!alone) ended();
  }
  ended();
  return stacks;
}

std::string demangled(std::string const& symbol) {
  if (symbol.compare(0, 2, "_Z") != 0) return symbol;  // "f" is a name here, and not a float
  int status = -1;
  std::unique_ptr<char, void (*)(void*)> const text(
      abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), std::free);
  return status == 0 ? text.get() : symbol;
}

/// One object file and its debug information, as far as there is any.
class Object final {
 public:
  explicit Object(std::string const& path) : dwfl_(dwfl_begin(&callbacks())) {
    if (dwfl_ == nullptr) return;
    module_ = dwfl_report_offline(dwfl_, path.c_str(), path.c_str(), -1);
    dwfl_report_end(dwfl_, nullptr, nullptr);
  }
  ~Object() {
    if (dwfl_ != nullptr) dwfl_end(dwfl_);
  }
  Object(Object const&) = delete;

  struct Place {
    std::string function;
    std::string line;  // "" when it is not known
  };
  Place placeOf(Frame const& frame) const {
    Place place{frame.symbol == "unknown" ? "" : demangled(frame.symbol), ""};
    if (module_ == nullptr) return place;
    // The address is where the call returns to: the call is before it.
    GElf_Addr const address = _start(frame.symbol) + frame.offset - 1;
    if (place.function.empty()) {
      char const* const name = dwfl_module_addrname(module_, address);
      if (name != nullptr) place.function = demangled(name);
    }
    Dwfl_Line* const line = dwfl_module_getsrc(module_, address);
    int number = 0;
    char const* const file = line == nullptr
                                 ? nullptr
                                 : dwfl_lineinfo(line, nullptr, &number, nullptr, nullptr, nullptr);
    if (file != nullptr) place.line = std::string(file) + ":" + std::to_string(number);
    return place;
  }

 private:
  static Dwfl_Callbacks const& callbacks() {
    static Dwfl_Callbacks const table = {nullptr, dwfl_standard_find_debuginfo,
                                         dwfl_offline_section_address, nullptr};
    return table;
  }
  GElf_Addr _start(std::string const& symbol) const {
    GElf_Addr start = 0;
    if (symbol == "unknown") {
      dwfl_module_info(module_, nullptr, &start, nullptr, nullptr, nullptr, nullptr, nullptr);
      return start;
    }
    for (int i = 0, count = dwfl_module_getsymtab(module_); i < count; ++i) {
      GElf_Sym info;
      GElf_Addr address = 0;
      char const* const name =
          dwfl_module_getsym_info(module_, i, &info, &address, nullptr, nullptr, nullptr);
      // Undefined ones stand in the table of every user.
      if (name != nullptr && symbol == name && info.st_shndx != SHN_UNDEF) return address;
    }
    return start;
  }

  Dwfl* const dwfl_;
  Dwfl_Module* module_ = nullptr;
};

class Objects final {
 public:
  Object::Place placeOf(Frame const& frame) {
    if (frame.object.empty()) return {};
    auto& object = objects_[frame.object];
    if (object == nullptr) object = std::make_unique<Object>(frame.object);
    return object->placeOf(frame);
  }

 private:
  std::map<std::string, std::unique_ptr<Object>> objects_;
};

void print(std::vector<std::pair<Stack, std::size_t>> const& ranked, bool asJson) {
  Objects objects;
  Json json;
  json.array();
  for (auto const& [stack, count] : ranked) {
    json.object().name("count").number(count).name("frames").array();
    if (!asJson) std::cout << count << (count == 1 ? " time:\n" : " times:\n");
    for (Frame const& frame : stack) {
      Object::Place const place = objects.placeOf(frame);
      std::string const function = place.function.empty() ? frame.address : place.function;
      std::string const where = place.line.empty() ? frame.object : place.line;
      json.object().name("function").string(function).name("where").string(where).endObject();
      if (!asJson) {
        std::cout << "    " << function << (where.empty() ? "" : "\n        at " + where) << '\n';
      }
    }
    json.endArray().endObject();
  }
  if (asJson) std::cout << json.endArray();
  flushReport();
}

void run(std::string const& file, bool asJson) {
  std::ifstream opened;
  if (file != "-") {
    opened.open(file);
    if (!opened) throw std::runtime_error("cannot read " + file);
  }
  auto const stacks = stacksIn(file == "-" ? std::cin : opened);
  if (stacks.empty()) throw std::runtime_error("there is no stack in the text");
  std::vector<std::pair<Stack, std::size_t>> ranked(stacks.begin(), stacks.end());
  std::stable_sort(ranked.begin(), ranked.end(),
                   [](auto const& a, auto const& b) { return a.second > b.second; });
  print(ranked, asJson);
}

}  // namespace

void addStacks(CLI::App& program) {
  struct Options {
    std::string file = "-";
    bool json = false;
  };
  auto const options = std::make_shared<Options>();
  CLI::App* const command = program.add_subcommand(
      "stacks",
      "Make the stacks in a text readable: demangled, with file and line where there is\n"
      "debug information, equal ones merged, the most frequent first");
  command->add_option("FILE", options->file, "The text; standard input unless given");
  command->add_flag("--json", options->json, "One line of JSON");
  command->callback([options] { run(options->file, options->json); });
}

}  // namespace Operator
