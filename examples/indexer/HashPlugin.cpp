#include "HashPlugin.h"

#include <stdexcept>

namespace Indexer {

HashPlugin const& loadHash(std::string const& name) {
  std::string const plugin = "IndexerHash-" + name;
  auto* const loaded = Veltro::Platform::loadPlugin(plugin.c_str());
  if (loaded == nullptr) {
    throw std::runtime_error("no hash '" + name + "': cannot load lib" + plugin +
                             ".so (LD_LIBRARY_PATH says where to look, TRACE=VeltroPlugin/0 "
                             "tells the reason)");
  }
  return *static_cast<HashPlugin*>(loaded);
}

}  // namespace Indexer
