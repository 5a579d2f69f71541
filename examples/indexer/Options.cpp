#include "Options.h"

#include <getopt.h>

#include <stdexcept>

namespace Indexer {
namespace {

// Names become parts of file names.
std::string plainName(char const* option, std::string const& name) {
  constexpr char const* kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
  if (name.empty() || name.find_first_not_of(kPlain) != std::string::npos) {
    throw std::invalid_argument(std::string(option) + " cannot be '" + name +
                                "': letters, digits, _ and - only");
  }
  return name;
}

}  // namespace

char const* usage() {
  return "usage: indexer [OPTION...] [DIRECTORY]\n"
         "\n"
         "Reads and hashes every file below DIRECTORY (/usr/include unless given) and answers\n"
         "queries on a Unix-domain socket while it works.\n"
         "\n"
         "  --socket PATH  where to listen; otherwise it chooses a path and prints it\n"
         "  --stay         go on answering, and following changes, when the index is done\n"
         "  --hash NAME    the hash function: fnv1a (unless given), crc64, or any other of which\n"
         "                 there is a plugin libIndexerHash-NAME.so\n"
         "  --counters NAME  publish counters of that name: "
         "/var/shmem/shmem/counters/indexer/NAME\n"
         "                 and NAME.log beside it, for `veltro counters`; otherwise nothing is\n"
         "                 published\n"
         "  --help         this text\n"
         "\n"
         "Queries, one a line: stat | find HASH | file PATH | report | history N | quit\n"
         "\n"
         "Exit status: 0 all files indexed, 1 some could not be read, 2 could not start,\n"
         "3 ended before the index was done.\n";
}

Options parseOptions(int argc, char* argv[]) {
  static option const known[] = {
      {"help", no_argument, nullptr, 'h'},       {"socket", required_argument, nullptr, 's'},
      {"hash", required_argument, nullptr, 'a'}, {"counters", required_argument, nullptr, 'c'},
      {"stay", no_argument, nullptr, 'k'},       {nullptr, 0, nullptr, 0}};
  Options options;
  opterr = 0;  // said by the caller, in one voice
  for (int word; (word = getopt_long(argc, argv, ":hs:", known, nullptr)) != -1;) {
    switch (word) {
      case 'h':
        options.help = true;
        break;
      case 'k':
        options.stay = true;
        break;
      case 'a':
        options.hash = plainName("--hash", optarg);
        break;
      case 'c':
        options.counters = plainName("--counters", optarg);
        break;
      case 's':
        options.socketPath = optarg;
        break;
      case ':':
        throw std::invalid_argument(std::string(argv[optind - 1]) + " needs a value");
      default:
        throw std::invalid_argument(std::string("unknown option ") + argv[optind - 1]);
    }
  }
  if (optind < argc) options.directory = argv[optind++];
  if (optind < argc) throw std::invalid_argument(std::string("one word too many: ") + argv[optind]);
  if (options.directory.empty()) throw std::invalid_argument("the directory's name is empty");
  // One form for each path: events name the root as it is given here.
  while (options.directory.size() > 1 && options.directory.back() == '/') {
    options.directory.pop_back();
  }
  return options;
}

}  // namespace Indexer
