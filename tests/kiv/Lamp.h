#pragma once
#include "Kiv/ModelOf.h"

namespace Kiv {

struct Mark {
  String type;
  U32 mask = 0;
  friend bool operator==(Mark const& a, Mark const& b) {
    return a.type == b.type && a.mask == b.mask;
  }
  static Model const& model() {
    static Model const& table = ModelOf<Mark>("Test::Mark")
                                    .attribute("type", &Mark::type)
                                    .attribute("mask", &Mark::mask)
                                    .made();
    return table;
  }
};

/// An entity with one of everything.
class Lamp : public Entity {
 public:
  class Notifiee : public NotifieeOf<Lamp> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onLevel() {}
    virtual void onRoom(String const&) {}
  };

  explicit Lamp(Name theName) : name(*this, theName) {}

  Attribute<Name> name;
  Attribute<U32> level{*this, &Notifiee::onLevel, 5u};
  Attribute<double> tilt{*this};
  Attribute<bool> on{*this};
  Attribute<Ptr<Lamp>> peer{*this};
  Collection<String, U32> room{*this, &Notifiee::onRoom};
  Collection<S32, Mark> mark{*this};
  Queue<U32> waiting{*this};

  String label() const { return label_; }
  void labelIs(String const& label) {
    if (label.empty()) throw RangeException("no label");
    label_ = label;
  }
  std::map<U32, String> rooms() const {
    std::map<U32, String> result;
    for (auto const& [key, number] : room.all()) result[number] = key;
    return result;
  }
  U32 doDim(U32 const& by, bool reset) {
    U32 const old = level();
    level.is(reset ? by : old - by);
    return old;
  }
  String greeting(Name who) const { return String("hello ") + who.string(); }
  void doFail() { throw ErrnoException("lamp", 5); }

  Model const& model() const override { return table(); }
  static Model const& table() {
    static Model const& made = ModelOf<Lamp>("Test::Lamp")
                                   .attribute("name", &Lamp::name, kLogged)
                                   .attribute("label", &Lamp::label, &Lamp::labelIs)
                                   .attribute("level", &Lamp::level, kWritable | kLogged)
                                   .attribute("tilt", &Lamp::tilt, kWritable | kLogged)
                                   .attribute("on", &Lamp::on, kWritable | kLogged)
                                   .attribute("peer", &Lamp::peer, kWritable)
                                   .collection("room", &Lamp::room, kWritable | kLogged)
                                   .collection("mark", &Lamp::mark, kLogged)
                                   .collection("rooms", &Lamp::rooms)
                                   .queue("waiting", &Lamp::waiting, kWritable)
                                   .operation("doDim", &Lamp::doDim, {"by", "reset"})
                                   .operation("greeting", &Lamp::greeting, {"who"})
                                   .operation("doFail", &Lamp::doFail)
                                   .made();
    return made;
  }

 private:
  String label_;
};

}  // namespace Kiv
