// TRACEFORMAT: a record is the format with its tokens replaced, and one newline at most is added.
#include <unistd.h>

#include <map>
#include <regex>

#include "Kiv/Trace.h"
#include "fuzz/support/Fuzz.h"
#include "fuzz/support/StandardError.h"

namespace Veltro::fuzz {

int run(Input& input) {
  int const flag = static_cast<int>(input.byte());
  std::string const asked = input.until('\0');
  std::string const text = input.until('\0');

  static Kiv::TraceHandle const handle("Fuzz", 0);
  Kiv::TraceFacilityManager::environmentIs("TRACEFORMAT", asked);
  Kiv::TraceFacilityManager::instance().doReadEnvironment();
  std::string const record = standardError(
      [&] { Kiv::traceHelper(handle, 7, flag, "a file", -42, nullptr, text.c_str()); });

  std::map<char, std::string> tokens{{'p', std::to_string(::getpid())},
                                     {'t', std::to_string(::gettid())},
                                     {'n', "Fuzz"},
                                     {'l', "7"},
                                     {'f', "a file"},
                                     {'L', "-42"},
                                     {'F', ""},
                                     {'m', text},
                                     {'%', "%"}};
  std::string const format = asked.empty() ? "%T %p %n/%l %F: %m" : asked;
  std::string expected;
  for (std::size_t i = 0; i < format.size(); ++i) {
    char const next = format[i] == '%' && i + 1 < format.size() ? format[i + 1] : '\0';
    if (next == 'T') {  // another each time
      static std::regex const time("\\d\\d:\\d\\d:\\d\\d\\.\\d{6}");
      tokens['T'] = record.substr(std::min(expected.size(), record.size()), 15);
      FUZZ_CHECK(std::regex_match(tokens['T'], time), record);
    }
    auto const token = tokens.find(next);
    expected += token != tokens.end() ? token->second : std::string(1, format[i]);
    if (token != tokens.end()) ++i;
  }
  if ((flag & 1) != 0 && (expected.empty() || expected.back() != '\n')) expected += '\n';
  FUZZ_CHECK(record == expected, "\"" << record << "\" is not \"" << expected << "\"");
  return 0;
}

}  // namespace Veltro::fuzz
