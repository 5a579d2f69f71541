#include "Options.h"

#include <getopt.h>

#include <charconv>
#include <cstring>
#include <stdexcept>

namespace Counters {
namespace {

template <typename Number>
Number numberOf(char const* option, char const* text, Number least, Number most) {
  Number number{};
  char const* const end = text + std::strlen(text);
  auto const [stop, fault] = std::from_chars(text, end, number);
  if (fault != std::errc() || stop != end || !(number >= least && number <= most)) {
    throw std::invalid_argument(std::string(option) + " cannot be '" + text + "'");
  }
  return number;
}

}  // namespace

char const* usage() {
  return "usage: veltro-counters [OPTION...] LOG\n"
         "\n"
         "Lists the counters of a counter file: for each key in the attribute log LOG its block,\n"
         "the block's generation (it changes when the agent restarts) and the 64-bit value.\n"
         "Changes nothing, and makes nothing.\n"
         "\n"
         "  --file FILE         the counter file, when it is not where LOG says\n"
         "  --block-size BYTES  size of a block, when the file has grown past its blocks\n"
         "  --json              one line of JSON a reading\n"
         "  --follow[=SECONDS]  read again every so often (1 unless given), with rates;\n"
         "                      new keys appear, a restarted agent is picked up\n"
         "  --times N           with --follow: end after N readings\n"
         "  --help              this text\n"
         "\n"
         "Exit status: 0 all was read, 1 the log or the file could not be read or the output\n"
         "not be written, 2 the command line is wrong.\n";
}

Options parseOptions(int argc, char* argv[]) {
  static option const known[] = {{"help", no_argument, nullptr, 'h'},
                                 {"file", required_argument, nullptr, 'f'},
                                 {"block-size", required_argument, nullptr, 'b'},
                                 {"json", no_argument, nullptr, 'j'},
                                 {"follow", optional_argument, nullptr, 'w'},
                                 {"times", required_argument, nullptr, 'n'},
                                 {nullptr, 0, nullptr, 0}};
  Options options;
  opterr = 0;  // said by the caller, in one voice
  for (int word; (word = getopt_long(argc, argv, ":h", known, nullptr)) != -1;) {
    switch (word) {
      case 'h':
        options.help = true;
        return options;
      case 'f':
        options.file = optarg;
        break;
      case 'b':
        options.blockSize = numberOf<Kiv::U32>("--block-size", optarg, 16, 1u << 30);
        break;
      case 'j':
        options.json = true;
        break;
      case 'w':
        options.period = optarg == nullptr ? 1 : numberOf<double>("--follow", optarg, 0.001, 86400);
        break;
      case 'n':
        options.times = numberOf<Kiv::U64>("--times", optarg, 1, ~Kiv::U64{0});
        break;
      case ':':
        throw std::invalid_argument(std::string(argv[optind - 1]) + " needs a value");
      default:
        throw std::invalid_argument(std::string("unknown option ") + argv[optind - 1]);
    }
  }
  if (options.times > 0 && options.period == 0) {
    throw std::invalid_argument("--times goes with --follow only");
  }
  if (optind >= argc) throw std::invalid_argument("LOG is missing");
  options.log = argv[optind++];
  if (optind < argc) throw std::invalid_argument(std::string("one word too many: ") + argv[optind]);
  return options;
}

}  // namespace Counters
