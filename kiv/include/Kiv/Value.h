#pragma once
#include <cstdint>
#include <iosfwd>
#include <limits>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/Export.h"
#include "Kiv/Name.h"
#include "Kiv/Ptr.h"
#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Kiv {

class Model;

/// A value whose type is known at run time only: what reflection passes, what the attribute log
/// keeps. Its text form reads back as the same value:
///
///     None  True  False  -3  18446744073709551615  0.5  inf  'it\'s \n \x00'
///     {'a': 1, 'b': 2}                                     a table; an empty one is None
///     Value('Veltro::Watcher', ** {'type': 'x', 'mask': 2})   a structure with named fields
///
/// Strings are bytes; the backslash, the quote and control characters are escaped.
class KIV_API Value final {
 public:
  /// A name and a value.
  using Field = std::pair<std::string, Value>;
  /// A type's name, and its fields in order.
  struct Structure {
    std::string type;           ///< its name
    std::vector<Field> fields;  ///< in order
  };
  /// Keys and values, in order.
  using Table = std::vector<std::pair<Value, Value>>;

  /// None.
  Value() = default;
  Value(double value) : data_(value) {}
  /// A text.
  Value(char const* value) : data_(String(value).stdString()) {}
  Value(std::string value) : data_(std::move(value)) {}
  Value(String const& value) : data_(value.stdString()) {}
  Value(Name value) : data_(value.stdString()) {}
  /// bool and all integers; a template, so that no pointer becomes a bool.
  template <typename T, typename = std::enable_if_t<std::is_integral_v<T>>>
  Value(T value) {
    if constexpr (std::is_same_v<T, bool>) {
      data_ = value;
    } else if (std::is_signed_v<T> && value < T(0)) {
      data_ = S64(value);
    } else {
      data_ = U64(value);
    }
  }
  /// From the two that have parts.
  Value(Structure value);
  Value(Table value);

  /// Whether there is no value.
  bool isNone() const { return data_.index() == 0; }
  /// What it holds, null where it holds something else.
  bool const* boolean() const { return std::get_if<bool>(&data_); }
  U64 const* natural() const { return std::get_if<U64>(&data_); }
  S64 const* negative() const { return std::get_if<S64>(&data_); }
  double const* real() const { return std::get_if<double>(&data_); }
  std::string const* string() const { return std::get_if<std::string>(&data_); }
  Structure const* structure() const { return std::get_if<Structure>(&data_); }
  Table const* table() const { return std::get_if<Table>(&data_); }

  /// The text form, which the parser reads back.
  std::string text() const;
  /// Reads text() back. Anything else throws RangeException, which says what and where.
  static Value parsed(std::string const& text);

  KIV_API friend bool operator==(Value const& a, Value const& b);
  friend bool operator!=(Value const& a, Value const& b) { return !(a == b); }

 private:
  std::variant<std::monostate, bool, U64, S64, double, std::string, Structure, Table> data_;
};

KIV_API std::ostream& operator<<(std::ostream& os, Value const& value);

namespace detail {
// What a class with a table is made a value of, and back.
KIV_API std::string const& typeNameOf(Model const& model);
KIV_API Value structureOf(Model const& model, void const* object);
KIV_API void structureIs(Model const& model, void* object, Value const& value);
[[noreturn]] KIV_API void throwIllTyped(Value const& value, std::string const& type);
}  // namespace detail

/// How a C++ type is named and made a Value of, and back; from() throws RangeException on a value
/// of another type or out of range. Specialise it for types of your own, or give a class
/// `static Kiv::Model const& model()` and it is a structure.
template <typename T, typename = void>
struct ValueType {
  /// The type's name in tables; a value of it as a Value; and back, which throws RangeException for
  /// a Value of another type.
  static std::string name() { return detail::typeNameOf(T::model()); }
  static Value of(T const& value) { return detail::structureOf(T::model(), &value); }
  static T from(Value const& value) {
    T result;
    detail::structureIs(T::model(), &result, value);
    return result;
  }
};

template <>
struct ValueType<void> {
  static std::string name() { return "void"; }
};

template <>
struct ValueType<bool> {
  static std::string name() { return "bool"; }
  static Value of(bool value) { return value; }
  static bool from(Value const& value) {
    if (value.boolean() == nullptr) detail::throwIllTyped(value, name());
    return *value.boolean();
  }
};

template <typename T>
struct ValueType<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> {
  static std::string name() {
    return (std::is_signed_v<T> ? "S" : "U") + std::to_string(8 * sizeof(T));
  }
  static Value of(T value) { return value; }
  static T from(Value const& value) {
    if (U64 const* const natural = value.natural()) {
      if (*natural <= U64(std::numeric_limits<T>::max())) return T(*natural);
    } else if (S64 const* const negative = value.negative()) {
      if (*negative >= S64(std::numeric_limits<T>::min())) {
        return T(*negative);
      }
    }
    detail::throwIllTyped(value, name());
  }
};

template <>
struct ValueType<double> {
  static std::string name() { return "double"; }
  static Value of(double value) { return value; }
  static double from(Value const& value) {
    if (value.real() != nullptr) return *value.real();
    if (value.natural() != nullptr) return double(*value.natural());
    if (value.negative() != nullptr) return double(*value.negative());
    detail::throwIllTyped(value, name());
  }
};

template <typename T>
struct ValueType<T, std::enable_if_t<std::is_same_v<T, String> || std::is_same_v<T, Name> ||
                                     std::is_same_v<T, std::string>>> {
  static std::string name() { return std::is_same_v<T, Name> ? "Kiv::Name" : "Kiv::String"; }
  static Value of(T const& value) { return value; }
  static T from(Value const& value) {
    if (value.string() == nullptr) detail::throwIllTyped(value, name());
    return T(*value.string());
  }
};

template <typename K, typename V>
struct ValueType<std::map<K, V>> {
  static std::string name() {
    return "{" + ValueType<K>::name() + ": " + ValueType<V>::name() + "}";
  }
  static Value of(std::map<K, V> const& map) {
    Value::Table table;
    for (auto const& [key, value] : map) {
      table.emplace_back(ValueType<K>::of(key), ValueType<V>::of(value));
    }
    return table;
  }
  static std::map<K, V> from(Value const& value) {
    std::map<K, V> map;
    if (value.isNone()) return map;
    if (value.table() == nullptr) detail::throwIllTyped(value, name());
    for (auto const& [key, entry] : *value.table()) {
      if (!map.emplace(ValueType<K>::from(key), ValueType<V>::from(entry)).second) {
        throw RangeException("key " + key.text() + " comes twice");
      }
    }
    return map;
  }
};

/// Pointers are shown, as their address or None, and never taken back.
template <typename T>
struct ValueType<T*> {
  static std::string name() { return "pointer"; }
  static Value of(T* value) {
    return value == nullptr ? Value() : Value(U64(reinterpret_cast<std::uintptr_t>(value)));
  }
  static T* from(Value const& value) { detail::throwIllTyped(value, name()); }
};
template <typename T>
struct ValueType<Ptr<T>> {
  static std::string name() { return "pointer"; }
  static Value of(Ptr<T> const& value) { return ValueType<T*>::of(value.ptr()); }
  static Ptr<T> from(Value const& value) { detail::throwIllTyped(value, name()); }
};

}  // namespace Kiv
