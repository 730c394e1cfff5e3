// The objects that actors serve, their classes, and the handle on them.
#pragma once

#include <cstdlib>
#include <functional>
#include <string>

#include "Permitted.h"

namespace soak {

constexpr unsigned int kClass = 0x50AC00;
constexpr unsigned int kClasses = 3;
enum Method : unsigned int {
    kGetName = 1,
    kGetNumber = 2,
    kGetLevel = 3,
    kSetLevel = 4,  // observers forbid odd levels
    kRelay = 5,     // (path) -> number of objects called
    kNote = 6       // (actor) one-way
};

inline TreflectMetaClass const soakMeta("Soak", kClass, {},
                                        {{"getName", kGetName, {}, {"string"}},
                                         {"getNumber", kGetNumber, {}, {"unsigned"}},
                                         {"getLevel", kGetLevel, {}, {"unsigned"}},
                                         {"setLevel", kSetLevel, {"unsigned"}, {}},
                                         {"relay", kRelay, {"string"}, {"unsigned"}},
                                         {"note", kNote, {"string"}, {}}},
                                        {"Name", "Number", "Level"});

// A cancellation of one kind of notice ends the other kind as well, so each class has its rule:
// which observers stay in every actor, and what can therefore be asked of the others.
inline TreflectMetaClass const comingMeta("SoakComing", kClass + 1, {&soakMeta}, {});
inline TreflectMetaClass const goingMeta("SoakGoing", kClass + 2, {&soakMeta}, {});
inline TreflectMetaClass const stayingMeta("SoakStaying", kClass + 3, {&soakMeta}, {});

enum class Kind { creations, deletions };
inline char const* text(Kind kind) {
    return kind == Kind::creations ? "creations" : "deletions";
}
/** Whether one observer of this kind stays from the actor's start to its end. */
constexpr bool hasAnchor(unsigned int index, Kind kind) {
    return index == 2 || (index == 0) == (kind == Kind::deletions);
}
/** Whether notices of this kind are never cancelled by the end of the other kind. */
constexpr bool isChecked(unsigned int index, Kind kind) {
    return index == 2 || (index == 0) == (kind == Kind::creations);
}
inline TreflectMetaClass const& classOf(unsigned int index) {
    TreflectMetaClass const* const all[kClasses] = {&comingMeta, &goingMeta, &stayingMeta};
    return *all[index];
}
inline TreflectMetaObject& metaOf(unsigned int index) {
    return *InterfaceRepository::instance()->findInterface(classOf(index).getClassId());
}

/** The object that every actor serves from start to end, under the same name in each life. */
inline std::string homeOf(unsigned int actor) {
    return "home." + std::to_string(actor);
}
/** The actor of a name: of "home.ACTOR" and of "o.ACTOR.LIFE...". */
inline unsigned int actorOf(std::string const& name) {
    return static_cast<unsigned int>(std::atoi(name.c_str() + name.find('.') + 1));
}
inline TipprmiOID named(std::string const& name) {
    return TipprmiOID(name, NSID_UNIT);
}

class Object final : public TreflectServerObject {
public:
    /** What an object tells: "create" and "delete" before those events are sent, "created" and
     * "deleted" after that, each with its name, and "note" with what it was sent. */
    using Tell = std::function<void(char const* what, std::string const& text)>;

    /** One of the class `meta`, which is announced unless that is the class of all. */
    Object(std::string const& name, std::string const& shortName, unsigned int number,
           TreflectMetaClass const& meta, TreflectObject const* parent, Tell tell)
        : TreflectServerObject(named(name), parent, shortName),
          meta_(meta),
          name_(name),
          number_(number),
          tell_(std::move(tell)) {
        if (&meta_ == &soakMeta)
            return;
        tell_("create", name_);
        sendCreationEvent();
        tell_("created", name_);
    }
    ~Object() override {
        if (&meta_ == &soakMeta)
            return;
        tell_("delete", name_);
        sendDeletionEvent();
        tell_("deleted", name_);
    }

    unsigned int getServerClassId() const override { return meta_.getClassId(); }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return meta_.classIds();
    }
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        auto const by = [&](auto method) { return serve(kClass, cc, mc, in, out, method); };
        return mc == kGetName     ? by(&Object::getName)
               : mc == kGetNumber ? by(&Object::getNumber)
               : mc == kGetLevel  ? by(&Object::getLevel)
               : mc == kSetLevel  ? by(&Object::setLevel)
               : mc == kRelay     ? by(&Object::relay)
               : mc == kNote      ? by(&Object::note)
                                  : TreflectServerObject::dispatch(withResponse, cc, mc, in, out);
    }

    std::string getName() { return name_; }
    unsigned int getNumber() { return number_; }
    unsigned int getLevel() { return level_; }
    void setLevel(unsigned int level) { level_ = level; }
    inline TipprmiResult<unsigned int> relay(std::string const& path);
    void note(std::string const& from) { tell_("note", from); }

private:
    TreflectMetaClass const& meta_;
    std::string const name_;
    unsigned int const number_;
    Tell const tell_;
    unsigned int level_ = 0;  // guarded by the run permission
};

class Client : public TreflectObject {
public:
    using TreflectObject::TreflectObject;

    TipprmiResult<std::string> getName() const {
        return treflectCall(*this, kClass, kGetName, &Object::getName);
    }
    TipprmiResult<unsigned int> getNumber() const {
        return treflectCall(*this, kClass, kGetNumber, &Object::getNumber);
    }
    /** The new level. */
    TipprmiResult<unsigned int> setLevel(unsigned int level) const {
        return levelOr(treflectCall(*this, kClass, kSetLevel, &Object::setLevel, level), level);
    }
    /** The same by the attribute's name. */
    TipprmiResult<unsigned int> storeLevel(unsigned int level) const {
        return levelOr(attribute("Level").store(level), level);
    }
    /** Calls the objects "home" of the actors in `path` (numbers with dots between), one inside the
     * other. */
    TipprmiResult<unsigned int> relay(std::string const& path) const {
        return treflectCall(*this, kClass, kRelay, &Object::relay, path);
    }
    TipprmiResult<void> note(std::string const& from) const {
        return tipprmiSend(*this, kClass, kNote, from);
    }

private:
    static TipprmiResult<unsigned int> levelOr(TipprmiResult<void> const& done,
                                               unsigned int level) {
        return done ? TipprmiResult<unsigned int>(level) : TipprmiFailure(done.code());
    }
};

TipprmiResult<unsigned int> Object::relay(std::string const& path) {
    if (path.empty())
        return 1u;
    std::size_t const end = path.find('.');
    std::string const rest = end == std::string::npos ? "" : path.substr(end + 1);
    auto const further = Client(named("home." + path.substr(0, end))).relay(rest);
    if (!further)
        return TipprmiFailure(further.code());
    return further.value() + 1;
}

}  // namespace soak
