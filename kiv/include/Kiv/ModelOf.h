#pragma once
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kiv/Attribute.h"
#include "Kiv/Collection.h"
#include "Kiv/Model.h"
#include "Kiv/Queue.h"

namespace Kiv {

/// What a member's row allows.
enum ModelFlags : unsigned {
  kReadOnly = 0,
  kWritable = 1,  ///< reflection may change it
  kLogged = 2,    ///< the attribute log keeps it
};
constexpr ModelFlags operator|(ModelFlags a, ModelFlags b) {
  return ModelFlags(unsigned(a) | unsigned(b));
}

namespace detail {

/// The object that a row is applied to: entities are passed as Entity, so that a base's rows do
/// for what derives from it.
template <typename T>
T& objectAs(void* object) {
  if constexpr (std::is_base_of_v<Entity, T>) {
    return static_cast<T&>(*static_cast<Entity*>(object));
  } else {
    return *static_cast<T*>(object);
  }
}
template <typename T>
T const& objectAs(void const* object) {
  return objectAs<T>(const_cast<void*>(object));
}

template <typename T>
struct PartOf {
  static constexpr bool isAttribute = false;
  using Held = T;
};
template <typename V>
struct PartOf<Attribute<V>> {
  static constexpr bool isAttribute = true;
  using Held = V;
};

/// What the log restores an attribute or a collection with.
struct Restoring {
  template <typename V>
  struct OfAttribute final : Restored {
    explicit OfAttribute(Attribute<V>& attribute) : attribute_(attribute) {}
    void take(Value const*, Value const& value) override { value_ = ValueType<V>::from(value); }
    void commit() noexcept override {
      changed_ = !(attribute_.value_ == value_);
      std::swap(attribute_.value_, value_);
    }
    void notify() override {
      if (changed_) attribute_._changed();
    }
    Attribute<V>& attribute_;
    V value_{};
    bool changed_ = false;
  };

  template <typename K, typename V>
  struct OfCollection final : Restored {
    explicit OfCollection(Collection<K, V>& collection) : collection_(collection) {}
    void take(Value const* key, Value const& value) override {
      if (key == nullptr) return;
      K const converted = ValueType<K>::from(*key);  // before the value, so that it is named first
      if (!entries_.add(converted, ValueType<V>::from(value))) {
        throw RangeException("key " + key->text() + " comes twice");
      }
    }
    void commit() noexcept override { collection_.entries_.swap(entries_); }
    void notify() override {
      std::map<K, bool> changed;  // copies: a reaction may change the collection, or end it
      for (auto const& [key, value] : entries_.ordered()) {
        V const* const now = collection_.entries_.find(key);
        if (now == nullptr || !(*now == value)) changed[key];
      }
      for (auto const& entry : collection_.all()) {
        if (entries_.find(entry.first) == nullptr) changed[entry.first];
      }
      for (auto const& entry : changed) collection_._changed(entry.first);
    }
    Collection<K, V>& collection_;
    IndexedMap<K, V> entries_;
  };
};

/// Converts; a value of another type throws RangeException that begins with `where`.
template <typename V>
V converted(std::string const& where, Value const& value) {
  try {
    return ValueType<V>::from(value);
  } catch (RangeException const& fault) {
    throw RangeException(where + ": " + fault.what());
  }
}

}  // namespace detail

/// Builds the table of T row by row, from pointers to its members, so that names and types cannot
/// part from the class; what has no row is found by the first Reflection of a T. Ends in made():
///
///     static Kiv::Model const& model = Kiv::ModelOf<Lamp>("Lamp")
///         .attribute("level", &Lamp::level, Kiv::kWritable | Kiv::kLogged)
///         .operation("doDim", &Lamp::doDim, {"by", "slowly"})
///         .made();
///
/// T is an entity, or a plain struct that becomes a structure value. A name that comes twice
/// throws RangeException.
template <typename T>
class ModelOf final {
 public:
  /// An empty table of that type.
  explicit ModelOf(std::string typeName) : model_(std::move(typeName)) {}

  /// The rows of a base class of T, an entity too.
  ModelOf& base(Model const& base) {
    static_assert(std::is_base_of_v<Entity, T>);
    for (Model::Member const& member : base.members()) model_._memberIs(member);
    for (Model::Operation const& operation : base.operations()) model_._operationIs(operation);
    return *this;
  }

  /// An Attribute, a data member of a plain struct (always writable), or a getter (read only).
  template <typename M, typename C>
  ModelOf& attribute(char const* name, M C::*member, ModelFlags flags = kReadOnly) {
    if constexpr (std::is_function_v<M>) {
      return _computed(name, member, Model::Kind::attribute, flags);
    } else if constexpr (detail::PartOf<M>::isAttribute) {
      return _attribute(name, member, flags);
    } else {
      static_assert(!std::is_base_of_v<Entity, T>, "an entity's data members are Attributes");
      Model::Member row = _row<M>(name, Model::Kind::attribute, kWritable);
      row.get_ = [member](void const* o) {
        return ValueType<M>::of(detail::objectAs<T>(o).*member);
      };
      row.set_ = [member, where = _where(name)](void* o, Value const& v) {
        detail::objectAs<T>(o).*member = detail::converted<M>(where, v);
      };
      return _add(std::move(row));
    }
  }

  /// A getter and a setter: a change goes the class's own way. Never in the log.
  template <typename G, typename S,
            typename = std::enable_if_t<std::is_member_function_pointer_v<S>>>
  ModelOf& attribute(char const* name, G getter, S setter) {
    using V = std::decay_t<std::invoke_result_t<G, T const&>>;
    Model::Member row = _row<V>(name, Model::Kind::attribute, kWritable);
    row.get_ = [getter](void const* o) {
      return ValueType<V>::of(std::invoke(getter, detail::objectAs<T>(o)));
    };
    row.set_ = [setter, where = _where(name)](void* o, Value const& v) {
      std::invoke(setter, detail::objectAs<T>(o), detail::converted<V>(where, v));
    };
    return _add(std::move(row));
  }

  /// A Collection x; writable, it has the operations xIs(key, value), xDel(key) and xDelAll().
  template <typename K, typename V, typename C>
  ModelOf& collection(char const* name, Collection<K, V> C::*member, ModelFlags flags = kReadOnly) {
    Model::Member row = _row<std::map<K, V>>(name, Model::Kind::collection, flags);
    row.part_ = true;
    row.get_ = [member](void const* o) {
      return ValueType<std::map<K, V>>::of((detail::objectAs<T>(o).*member).all());
    };
    row.restored_ = [member](void* o) -> std::unique_ptr<detail::Restored> {
      using Restored = detail::Restoring::OfCollection<K, V>;
      return std::make_unique<Restored>(detail::objectAs<T>(o).*member);
    };
    _add(std::move(row));
    if ((flags & kWritable) == 0) return *this;
    std::string const x = name;
    _operation<void, K, V>(x + "Is", {"key", "value"},
                           [member](T& o, K const& k, V const& v) { (o.*member).is(k, v); });
    _operation<V, K>(x + "Del", {"key"}, [member](T& o, K const& k) { return (o.*member).del(k); });
    return _operation<void>(x + "DelAll", {}, [member](T& o) { (o.*member).delAll(); });
  }

  /// A computed collection: a getter that returns a std::map.
  template <typename R, typename C>
  ModelOf& collection(char const* name, R (C::*getter)() const) {
    return _computed(name, getter, Model::Kind::collection, kReadOnly);
  }

  /// A Queue x; writable, it has the operations xEnq(value), xDeq(), xIs(index, value),
  /// xDel(index), xDelAll() and xMetadataIs(head, tail). Never in the log.
  template <typename V, typename C>
  ModelOf& queue(char const* name, Queue<V> C::*member, ModelFlags flags = kReadOnly) {
    if ((flags & kLogged) != 0) throw RangeException(std::string(name) + ": queues are not logged");
    Model::Member row = _row<std::map<U32, V>>(name, Model::Kind::queue, flags);
    row.part_ = true;
    row.get_ = [member](void const* o) {
      auto const& all = (detail::objectAs<T>(o).*member).all();
      return ValueType<std::map<U32, V>>::of(std::map<U32, V>(all.begin(), all.end()));
    };
    _add(std::move(row));
    if ((flags & kWritable) == 0) return *this;
    std::string const x = name;
    _operation<U32, V>(x + "Enq", {"value"},
                       [member](T& o, V const& v) { return (o.*member).enq(v); });
    _operation<V>(x + "Deq", {}, [member](T& o) { return (o.*member).deq(); });
    _operation<void, U32, V>(x + "Is", {"index", "value"},
                             [member](T& o, U32 i, V const& v) { (o.*member).is(i, v); });
    _operation<V, U32>(x + "Del", {"index"}, [member](T& o, U32 i) { return (o.*member).del(i); });
    _operation<void>(x + "DelAll", {}, [member](T& o) { (o.*member).delAll(); });
    return _operation<void, U32, U32>(x + "MetadataIs", {"head", "tail"},
                                      [member](T& o, U32 head, U32 tail) {
                                        (o.*member).metadataIs({head, tail});
                                      });
  }

  /// An operation, with a name for each of its parameters.
  template <typename R, typename C, typename... A, std::size_t N>
  ModelOf& operation(char const* name, R (C::*call)(A...), char const* const (&parameters)[N]) {
    static_assert(N == sizeof...(A), "a name for each parameter");
    return _operation<R, A...>(name, {parameters, parameters + N}, _invoking(call));
  }
  template <typename R, typename C, typename... A, std::size_t N>
  ModelOf& operation(char const* name, R (C::*call)(A...) const,
                     char const* const (&parameters)[N]) {
    static_assert(N == sizeof...(A), "a name for each parameter");
    return _operation<R, A...>(name, {parameters, parameters + N}, _invoking(call));
  }
  template <typename R, typename C>
  ModelOf& operation(char const* name, R (C::*call)()) {
    return _operation<R>(name, {}, _invoking(call));
  }
  template <typename R, typename C>
  ModelOf& operation(char const* name, R (C::*call)() const) {
    return _operation<R>(name, {}, _invoking(call));
  }

  /// The finished table, valid for ever.
  Model const& made() { return *new Model(std::move(model_)); }

 private:
  std::string _where(std::string const& name) const { return model_.typeName() + "." + name; }

  template <typename V>
  Model::Member _row(char const* name, Model::Kind kind, ModelFlags flags) const {
    Model::Member row;
    row.name = name;
    row.type = ValueType<V>::name();
    row.kind = kind;
    row.writable = (flags & kWritable) != 0;
    row.logged = (flags & kLogged) != 0;
    return row;
  }

  ModelOf& _add(Model::Member row) {
    model_._memberIs(std::move(row));
    return *this;
  }

  template <typename G>
  ModelOf& _computed(char const* name, G getter, Model::Kind kind, ModelFlags flags) {
    if (flags != kReadOnly) throw RangeException(std::string(name) + " is computed: read only");
    using V = std::decay_t<std::invoke_result_t<G, T const&>>;
    Model::Member row = _row<V>(name, kind, flags);
    row.get_ = [getter](void const* o) {
      return ValueType<V>::of(std::invoke(getter, detail::objectAs<T>(o)));
    };
    return _add(std::move(row));
  }

  template <typename V, typename C>
  ModelOf& _attribute(char const* name, Attribute<V> C::*member, ModelFlags flags) {
    Model::Member row = _row<V>(name, Model::Kind::attribute, flags);
    row.part_ = true;
    row.get_ = [member](void const* o) {
      return ValueType<V>::of((detail::objectAs<T>(o).*member)());
    };
    row.set_ = [member, where = _where(name)](void* o, Value const& v) {
      (detail::objectAs<T>(o).*member).is(detail::converted<V>(where, v));
    };
    row.restored_ = [member](void* o) -> std::unique_ptr<detail::Restored> {
      return std::make_unique<detail::Restoring::OfAttribute<V>>(detail::objectAs<T>(o).*member);
    };
    return _add(std::move(row));
  }

  template <typename F>
  static auto _invoking(F call) {
    return [call](T& object, auto&&... arguments) {
      return std::invoke(call, object, std::forward<decltype(arguments)>(arguments)...);
    };
  }

  /// `call(T&, A...)` returns R.
  template <typename R, typename... A, typename F>
  ModelOf& _operation(std::string name, std::vector<std::string> names, F call) {
    Model::Operation operation;
    operation.name = std::move(name);
    operation.result = ValueType<std::decay_t<R>>::name();
    std::vector<std::string> const types{ValueType<std::decay_t<A>>::name()...};
    for (std::size_t i = 0; i < types.size(); ++i) {
      operation.parameters.push_back({names[i], types[i]});
    }
    std::string const where = _where(operation.name) + ": parameter \"";
    for (std::string& parameter : names) parameter = where + parameter + "\"";
    operation.call_ = [call, names](void* object, std::vector<Value> const& values) {
      return _called<R, A...>(call, object, names, values, std::index_sequence_for<A...>());
    };
    model_._operationIs(std::move(operation));
    return *this;
  }

  template <typename R, typename... A, typename F, std::size_t... I>
  static Value _called(F const& call, void* object,
                       [[maybe_unused]] std::vector<std::string> const& where,
                       [[maybe_unused]] std::vector<Value> const& values,
                       std::index_sequence<I...>) {
    T& target = detail::objectAs<T>(object);
    if constexpr (std::is_void_v<R>) {
      call(target, detail::converted<std::decay_t<A>>(where[I], values[I])...);
      return Value();
    } else {
      return ValueType<std::decay_t<R>>::of(
          call(target, detail::converted<std::decay_t<A>>(where[I], values[I])...));
    }
  }

  Model model_;
};

}  // namespace Kiv
