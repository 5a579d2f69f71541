#include "Veltro/CounterDescriptions.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "Kiv/Exception.h"
#include "Kiv/Value.h"

namespace Veltro {
namespace {

using Text = std::map<std::string, std::string>;

std::string entryOf(std::string const& key, CounterDescription const& about) {
  Text const fields{{"kind", about.kind}, {"unit", about.unit}, {"help", about.help}};
  return Kiv::Value(key).text() + ": " + Kiv::ValueType<Text>::of(fields).text();
}

}  // namespace

void CounterDescriptions::descriptionIs(std::string const& key, CounterDescription description) {
  if (description.kind != "counter" && description.kind != "gauge") {
    throw Kiv::RangeException("counter " + Kiv::Value(key).text() + " cannot be a '" +
                              description.kind + "'");
  }
  descriptions_[key] = std::move(description);
}

CounterDescription CounterDescriptions::description(std::string const& key) const {
  auto const found = descriptions_.find(key);
  return found == descriptions_.end() ? CounterDescription() : found->second;
}

void CounterDescriptions::save(std::string const& path) const {
  std::string const beside = path + "." + std::to_string(::getpid()) + ".new";
  {
    std::ofstream file(beside);
    char const* separator = "{";
    for (auto const& [key, about] : descriptions_) {
      file << separator << entryOf(key, about);
      separator = ",\n ";
    }
    file << (descriptions_.empty() ? "None\n" : "}\n");
    file.close();
    if (!file) throw Kiv::ErrnoException("write " + beside, errno);
  }
  if (std::rename(beside.c_str(), path.c_str()) != 0) {
    throw Kiv::ErrnoException("rename " + path, errno);
  }
}

CounterDescriptions CounterDescriptions::load(std::string const& path) {
  CounterDescriptions result;
  std::ifstream file(path);
  if (!file) {
    if (errno == ENOENT) return result;
    throw Kiv::ErrnoException(path, errno);
  }
  std::ostringstream text;
  text << file.rdbuf();
  try {
    using Table = std::map<std::string, Text>;
    for (auto& [key, fields] : Kiv::ValueType<Table>::from(Kiv::Value::parsed(text.str()))) {
      result.descriptionIs(key, {fields["kind"], fields["unit"], fields["help"]});
    }
  } catch (Kiv::RangeException const& fault) {
    throw Kiv::RangeException(path + ": " + fault.what());
  }
  return result;
}

}  // namespace Veltro
