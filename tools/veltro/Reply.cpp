#include "Reply.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace Operator {

namespace Format = Veltro::IntrospectionFormat;
using Veltro::U64;

std::string printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return (c >= 0 && c < ' ') || c == 0x7f; }, '?');
  return text;
}

namespace {

/// Ends a name in its field, and makes it printable.
template <std::size_t size>
void tidy(char (&name)[size]) {
  std::string const text = printable(std::string(name, ::strnlen(name, size - 1)));
  std::memset(name, 0, size);
  text.copy(name, size - 1);
}

}  // namespace

Format::Header headerOf(std::vector<char> const& bytes, std::string const& path) {
  Format::Header header{};
  std::memcpy(&header, bytes.data(), std::min(bytes.size(), sizeof header));
  if (bytes.size() < sizeof header ||
      std::memcmp(header.magic, Format::kMagic, sizeof header.magic) != 0) {
    throw std::runtime_error(path + " holds no records");
  }
  if (header.version != Format::kVersion) {
    throw std::runtime_error(path + " is of version " + std::to_string(header.version) +
                             ", this program reads " + std::to_string(Format::kVersion));
  }
  tidy(header.program);
  tidy(header.thread);
  return header;
}

Reply::Reply(std::vector<char> bytes)
    : bytes_(std::move(bytes)), header_(headerOf(bytes_, "the agent's answer")) {
  U64 at = header_.headerBytes;
  for (Veltro::U32 i = 0; i < header_.sectionCount; ++i, at += sizeof(Section)) {
    Section section{};
    bool fits = at + sizeof section <= bytes_.size();
    if (fits) std::memcpy(&section, bytes_.data() + at, sizeof section);
    // Records without bytes would be counted for nothing.
    fits = fits && section.recordBytes != 0 &&
           section.offset + U64{section.count} * section.recordBytes <= bytes_.size();
    if (!fits) throw std::runtime_error("the agent's answer is damaged");
    sections_.push_back(section);
  }
}

Reply::Section Reply::_section(Kind kind) const {
  for (Section const& section : sections_) {
    if (section.kind == static_cast<Veltro::U32>(kind)) return section;
  }
  return {};
}

void Reply::_copy(Kind kind, std::size_t index, void* record, std::size_t bytes) const {
  Section const section = _section(kind);
  std::memcpy(record, bytes_.data() + section.offset + index * section.recordBytes,
              std::min<std::size_t>(bytes, section.recordBytes));
}

std::string Reply::string(Veltro::U32 offset) const {
  Section const strings = _section(Kind::strings);
  if (offset >= strings.count) return "?";
  char const* const text = bytes_.data() + strings.offset + offset;
  return printable(std::string(text, ::strnlen(text, strings.count - offset)));
}

std::string Reply::error() const {
  Section const section = _section(Kind::error);
  return printable(std::string(bytes_.data() + section.offset, section.count));
}

}  // namespace Operator
