#pragma once
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Kiv/Entity.h"
#include "Kiv/Export.h"
#include "Kiv/Value.h"

namespace Kiv {

namespace detail {
/// New contents of one member: gathered, then put in place without failing, then told of.
struct KIV_API Restored {
  virtual ~Restored();
  /// `key` is null for an attribute, and for the None of an empty collection.
  virtual void take(Value const* key, Value const& value) = 0;
  virtual void commit() noexcept = 0;
  virtual void notify() = 0;
};
}  // namespace detail

/// The table of a type: what it is called, its attributes, collections and queues in order, and
/// its operations. Reflection, value forms and the attribute log all work from it.
/// Made once by ModelOf, never destroyed, read by any thread.
class KIV_API Model final {
 public:
  /// What a member is.
  enum class Kind { attribute, collection, queue };

  /// One attribute, collection or queue: its names, whether it may be set, whether the log keeps
  /// it.
  struct Member {
    std::string name;             ///< as operations and the log use it
    std::string type;             ///< as Value forms show it
    Kind kind = Kind::attribute;  ///< what it is
    bool writable = false;        ///< whether it can be set by name
    bool logged = false;          ///< whether the attribute log keeps it

   private:
    template <typename T>
    friend class ModelOf;
    friend class Model;
    bool part_ = false;  // an EntityPart of its own, not computed
    std::function<Value(void const*)> get_;
    std::function<void(void*, Value const&)> set_;
    std::function<std::unique_ptr<detail::Restored>(void*)> restored_;
  };

  /// One parameter of an operation.
  struct Parameter {
    std::string name;  ///< as calls by name give it
    std::string type;  ///< as Value forms show it
  };

  /// One operation: its name, its result's type, its parameters in order.
  struct Operation {
    std::string name;                   ///< to call it by
    std::string result;                 ///< its type, "void" for none
    std::vector<Parameter> parameters;  ///< in order

   private:
    template <typename T>
    friend class ModelOf;
    friend class Model;
    std::function<Value(void*, std::vector<Value> const&)> call_;
  };

  /// Parameters by name.
  using Arguments = std::vector<std::pair<std::string, Value>>;

  /// The entity's type, its members and its operations, in the order of declaration.
  std::string const& typeName() const { return typeName_; }
  std::vector<Member> const& members() const { return members_; }
  std::vector<Operation> const& operations() const { return operations_; }
  /// By name; RangeException says which there is not.
  Member const& member(std::string const& name) const;
  Operation const& operation(std::string const& name) const;

 private:
  template <typename T>
  friend class ModelOf;
  friend class Reflection;
  friend class AttributeLog;
  friend Value detail::structureOf(Model const& model, void const* object);
  friend void detail::structureIs(Model const& model, void* object, Value const& value);

  explicit Model(std::string typeName) : typeName_(std::move(typeName)) {}
  void _memberIs(Member member);
  void _operationIs(Operation operation);
  /// An entity's address, as the rows take it. An entity with more or fewer attributes,
  /// collections and queues than rows for them throws RangeException.
  void* _checked(Entity& entity) const;

  Value _get(Member const& member, void const* object) const { return member.get_(object); }
  void _set(Member const& member, void* object, Value const& value) const;
  Value _call(Operation const& operation, void* object, Arguments const& arguments) const;
  std::unique_ptr<detail::Restored> _restored(Member const& member, void* object) const {
    return member.restored_(object);
  }

  std::string typeName_;
  std::vector<Member> members_;
  std::vector<Operation> operations_;
};

/// An entity seen by name. Borrows it. Each operation throws RangeException on an unknown name,
/// and on a value, argument or parameter that is missing, unknown or ill-typed, and says which;
/// nothing is changed then. What an operation throws passes through.
class KIV_API Reflection final {
 public:
  /// An entity that does not have what its table says throws RangeException.
  explicit Reflection(Entity& entity);

  /// The table.
  Model const& model() const { return model_; }
  /// Collections and queues are tables, by key and by index.
  Value attribute(std::string const& name) const;
  /// Only what the table calls writable; notifies as any change does. Collections and queues are
  /// changed by their operations.
  void attributeIs(std::string const& name, Value const& value);
  /// Calls the operation with one argument for each parameter, in any order.
  Value call(std::string const& name, Model::Arguments const& arguments = {});

 private:
  Model const& model_;
  void* object_;
};

}  // namespace Kiv
