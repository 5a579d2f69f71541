#pragma once
#include <string>
#include <vector>

#include "Veltro/IntrospectionFormat.h"

namespace Operator {

/// The head of `bytes`, its names ended whatever they hold; throws std::runtime_error, with `path`,
/// where it is none that this program reads.
Veltro::IntrospectionFormat::Header headerOf(std::vector<char> const& bytes,
                                             std::string const& path);

/// Without what a terminal would obey.
std::string printable(std::string text);

/// An agent's answer, whole. Records are copied out by kind; a newer agent's longer ones are cut,
/// an older one's shorter ones end in zeros.
class Reply final {
 public:
  using Kind = Veltro::IntrospectionFormat::Kind;

  /// Throws std::runtime_error where offsets and sizes do not fit together: nobody vouches for
  /// what another process has written.
  explicit Reply(std::vector<char> bytes);

  Veltro::IntrospectionFormat::Header const& header() const { return header_; }
  template <typename Record>
  std::vector<Record> records(Kind kind) const {
    std::vector<Record> records;
    for (std::size_t i = 0; i < _count(kind); ++i) {
      records.emplace_back();
      _copy(kind, i, &records.back(), sizeof(Record));
    }
    return records;
  }
  /// "?" where there is none.
  std::string string(Veltro::U32 offset) const;
  /// Why there is nothing else; "" when there is.
  std::string error() const;

 private:
  using Section = Veltro::IntrospectionFormat::Section;
  Section _section(Kind kind) const;
  std::size_t _count(Kind kind) const { return _section(kind).count; }
  void _copy(Kind kind, std::size_t index, void* record, std::size_t bytes) const;

  std::vector<char> const bytes_;
  Veltro::IntrospectionFormat::Header header_;
  std::vector<Section> sections_;
};

}  // namespace Operator
