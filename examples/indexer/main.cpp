// An agent to copy from: it indexes a directory tree, answers questions while it does so, and
// uses every part of the library on the way.
#include <cstdio>
#include <exception>

#include "Agent.h"
#include "Options.h"
#include "Veltro/Platform.h"

int main(int argc, char* argv[]) {
  try {
    Indexer::Options const options = Indexer::parseOptions(argc, argv);
    if (options.help) {
      std::fputs(Indexer::usage(), stdout);
      return 0;
    }
    Indexer::Signals::block();
    Veltro::useThreadLocalSingletons();  // the worker thread gets a loop of its own
    return Indexer::Agent(options).run();
  } catch (std::exception const& error) {
    std::fprintf(stderr, "indexer: %s\n", error.what());
    return 2;
  }
}
