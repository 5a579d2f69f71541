#include "Answer.h"

namespace Veltro {

using IntrospectionFormat::Header;
using IntrospectionFormat::Kind;
using IntrospectionFormat::Section;

void Answer::_sectionIs(Kind kind, std::size_t recordBytes, std::size_t count,
                        void const* records) {
  // Until all sections are known, offsets are counted from the first record.
  sections_.push_back({static_cast<U32>(kind), static_cast<U32>(recordBytes),
                       static_cast<U32>(count), static_cast<U32>(records_.size())});
  records_.append(static_cast<char const*>(records), recordBytes * count);
  records_.resize((records_.size() + 7) / 8 * 8);
}

std::string Answer::body() {
  _sectionIs(Kind::strings, 1, strings_.size(), strings_.data());
  std::size_t const table = sections_.size() * sizeof(Section);
  for (Section& section : sections_) {
    section.offset += static_cast<U32>(sizeof(Header) + table);
  }
  std::string body(reinterpret_cast<char const*>(sections_.data()), table);
  return body + records_;
}

}  // namespace Veltro
