#include "Kiv/Model.h"

#include <algorithm>

namespace Kiv {
namespace {

template <typename Rows>
auto rowCalled(Rows& rows, std::string const& name) {
  return std::find_if(rows.begin(), rows.end(), [&](auto const& row) { return row.name == name; });
}

template <typename Rows>
auto const& known(Rows const& rows, std::string const& name, std::string const& what) {
  auto const at = rowCalled(rows, name);
  if (at == rows.end()) throw RangeException(what + " \"" + name + "\"");
  return *at;
}

}  // namespace

namespace detail {

Restored::~Restored() = default;

std::string const& typeNameOf(Model const& model) { return model.typeName(); }

void throwIllTyped(Value const& value, std::string const& type) {
  throw RangeException(value.text() + " is not a " + type);
}

Value structureOf(Model const& model, void const* object) {
  Value::Structure structure{model.typeName(), {}};
  for (Model::Member const& member : model.members()) {
    structure.fields.emplace_back(member.name, model._get(member, object));
  }
  return structure;
}

void structureIs(Model const& model, void* object, Value const& value) {
  Value::Structure const* const structure = value.structure();
  if (structure == nullptr || structure->type != model.typeName()) {
    throwIllTyped(value, model.typeName());
  }
  auto const& fields = structure->fields;
  for (auto field = fields.begin(); field != fields.end(); ++field) {
    auto const same = [&](Value::Field const& other) { return other.first == field->first; };
    if (std::any_of(fields.begin(), field, same)) {
      throw RangeException(model.typeName() + ": \"" + field->first + "\" comes twice");
    }
    model._set(model.member(field->first), object, field->second);
  }
  for (Model::Member const& member : model.members()) {
    auto const same = [&](Value::Field const& field) { return field.first == member.name; };
    if (std::none_of(fields.begin(), fields.end(), same)) {
      throw RangeException(model.typeName() + ": \"" + member.name + "\" is missing");
    }
  }
}

}  // namespace detail

Model::Member const& Model::member(std::string const& name) const {
  return known(members_, name, typeName_ + " has no attribute");
}

Model::Operation const& Model::operation(std::string const& name) const {
  return known(operations_, name, typeName_ + " has no operation");
}

void Model::_memberIs(Member member) {
  if (rowCalled(members_, member.name) != members_.end()) {
    throw RangeException(typeName_ + " has two attributes \"" + member.name + "\"");
  }
  if (member.logged && member.type == "pointer") {
    throw RangeException(typeName_ + "." + member.name + ": addresses are not logged");
  }
  members_.push_back(std::move(member));
}

void Model::_operationIs(Operation operation) {
  if (rowCalled(operations_, operation.name) != operations_.end()) {
    throw RangeException(typeName_ + " has two operations \"" + operation.name + "\"");
  }
  operations_.push_back(std::move(operation));
}

void* Model::_checked(Entity& entity) const {
  auto const rows = std::count_if(members_.begin(), members_.end(),
                                  [](Member const& member) { return member.part_; });
  if (U32(rows) != entity.parts()) {
    throw RangeException(typeName_ + " has " + std::to_string(entity.parts()) +
                         " attributes, collections and queues, but its table lists " +
                         std::to_string(rows));
  }
  return static_cast<void*>(&entity);
}

void Model::_set(Member const& member, void* object, Value const& value) const {
  if (!member.writable || !member.set_) {
    throw RangeException(typeName_ + "." + member.name + " is not writable");
  }
  member.set_(object, value);
}

Value Model::_call(Operation const& operation, void* object, Arguments const& arguments) const {
  std::string const where = typeName_ + "." + operation.name + ": parameter \"";
  for (auto given = arguments.begin(); given != arguments.end(); ++given) {
    if (rowCalled(operation.parameters, given->first) == operation.parameters.end()) {
      throw RangeException(where + given->first + "\" is unknown");
    }
    auto const same = [&](auto const& other) { return other.first == given->first; };
    if (std::any_of(arguments.begin(), given, same)) {
      throw RangeException(where + given->first + "\" comes twice");
    }
  }
  std::vector<Value> ordered;
  for (Parameter const& parameter : operation.parameters) {
    auto const at = std::find_if(arguments.begin(), arguments.end(),
                                 [&](auto const& given) { return given.first == parameter.name; });
    if (at == arguments.end()) {
      throw RangeException(where + parameter.name + "\" (" + parameter.type + ") is missing");
    }
    ordered.push_back(at->second);
  }
  return operation.call_(object, ordered);
}

Reflection::Reflection(Entity& entity) : model_(entity.model()), object_(model_._checked(entity)) {}

Value Reflection::attribute(std::string const& name) const {
  return model_._get(model_.member(name), object_);
}

void Reflection::attributeIs(std::string const& name, Value const& value) {
  model_._set(model_.member(name), object_, value);
}

Value Reflection::call(std::string const& name, Model::Arguments const& arguments) {
  return model_._call(model_.operation(name), object_, arguments);
}

}  // namespace Kiv
