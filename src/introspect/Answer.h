#pragma once
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Veltro/IntrospectionFormat.h"

namespace Veltro {

/// The body of an answer, as it is put together: sections of records, and the strings of all.
class Answer final {
 public:
  /// The text's place among the strings; each text is kept once.
  U32 string(std::string const& text) {
    auto const [entry, isNew] = known_.emplace(text, static_cast<U32>(strings_.size()));
    if (isNew) strings_.append(text.c_str(), text.size() + 1);
    return entry->second;
  }

  template <typename Record>
  void sectionIs(IntrospectionFormat::Kind kind, std::vector<Record> const& records) {
    _sectionIs(kind, sizeof(Record), records.size(), records.data());
  }
  void errorIs(std::string const& text) {
    _sectionIs(IntrospectionFormat::Kind::error, 1, text.size(), text.data());
  }

  U32 sectionCount() const { return static_cast<U32>(sections_.size()); }
  /// Sections and records, each section's at a multiple of 8, the whole one too. Call it once, at
  /// the end: it adds the strings.
  std::string body();

 private:
  void _sectionIs(IntrospectionFormat::Kind kind, std::size_t recordBytes, std::size_t count,
                  void const* records);

  std::vector<IntrospectionFormat::Section> sections_;
  std::string records_;
  std::string strings_;
  std::map<std::string, U32> known_;
};

}  // namespace Veltro
