// TRACEFORMAT: a record is the format with its tokens replaced, and one newline at most is added.
#include <unistd.h>

#include <cctype>

#include "Kiv/Trace.h"
#include "fuzz/support/CapturedError.h"

namespace Veltro::fuzz {
namespace {

bool isTime(std::string const& text) {
  std::string shape = text;
  for (char& c : shape) {
    if (std::isdigit(static_cast<unsigned char>(c)) != 0) c = '0';
  }
  return shape == "00:00:00.000000";
}

// What a token stands for; `time` was cut out of the record, for it is another each time.
std::string expanded(char token, std::string const& time, std::string const& text) {
  switch (token) {
    case 'T':
      return time;
    case 'p':
      return std::to_string(::getpid());
    case 't':
      return std::to_string(::gettid());
    case 'n':
      return "Fuzz";
    case 'l':
      return "7";
    case 'f':
      return "a file";
    case 'L':
      return "-42";
    case 'F':
      return "";
    case 'm':
      return text;
    case '%':
      return "%";
    default:
      return std::string("%") + token;
  }
}

}  // namespace
}  // namespace Veltro::fuzz

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace Veltro::fuzz;
  Input input(data, size);
  int const flag = static_cast<int>(input.byte());
  std::string const asked = input.until('\0');
  std::string const text = input.until('\0');

  static Kiv::TraceHandle const handle("Fuzz", 0);
  Kiv::TraceFacilityManager::environmentIs("TRACEFORMAT", asked);
  Kiv::TraceFacilityManager::instance().doReadEnvironment();
  std::string record;
  {
    CapturedError const error;
    Kiv::traceHelper(handle, 7, flag, "a file", -42, nullptr, text.c_str());
    record = error.text();
  }

  std::string const format = asked.empty() ? "%T %p %n/%l %F: %m" : asked;
  std::string expected;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%' || i + 1 == format.size()) {
      expected += format[i];
      continue;
    }
    std::string const time = record.substr(std::min(expected.size(), record.size()), 15);
    FUZZ_CHECK(format[i + 1] != 'T' || isTime(time), record);
    // What is no token stands for itself, and what follows its percent sign may be one's begin.
    std::string const piece = expanded(format[++i], time, text);
    expected += piece;
  }
  if ((flag & 1) != 0 && (expected.empty() || expected.back() != '\n')) expected += '\n';
  FUZZ_CHECK(record == expected, "\"" << record << "\" is not \"" << expected << "\"");
  return 0;
}
