// The objects that actors serve, their classes, and the handle on them.
#pragma once

#include <functional>
#include <string>

#include "handler_threads.h"
#include "ipprmi.h"
#include "reflect.h"

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
inline TipprmiOID named(std::string const& name) {
    return TipprmiOID(name, NSID_UNIT);
}

/** The identifier that a handle carries. */
inline std::string nameOf(TreflectObject const& handle) {
    TipprmiOID const carried = handle.getStub_()->getOID();
    return carried.getIdString() ? carried.getIdString() : "";
}

/** Told before and after the events of an object are sent. */
struct Announcement {
    std::function<void(char const* verb, std::string const& name)> write;
};

class Object final : public TreflectServerObject {
public:
    using Notes = std::function<void(std::string const& from)>;

    /** One that is not announced and takes notes. */
    Object(std::string const& name, std::string const& shortName, unsigned int number, Notes notes)
        : TreflectServerObject(named(name), nullptr, shortName),
          meta_(soakMeta),
          name_(name),
          number_(number),
          notes_(std::move(notes)) {}
    /** One of the class `index`, which is announced. */
    Object(std::string const& name, std::string const& shortName, unsigned int number,
           unsigned int index, TreflectObject const* parent, Announcement announcement)
        : TreflectServerObject(named(name), parent, shortName),
          meta_(classOf(index)),
          name_(name),
          number_(number),
          announcement_(std::move(announcement)) {
        announcement_.write("create", name_);
        sendCreationEvent();
        announcement_.write("created", name_);
    }
    ~Object() override {
        if (!announcement_.write)
            return;
        announcement_.write("delete", name_);
        sendDeletionEvent();
        announcement_.write("deleted", name_);
    }

    unsigned int getServerClassId() const override { return meta_.getClassId(); }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return meta_.classIds();
    }
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case kGetName:
                return serve(kClass, cc, mc, in, out, &Object::getName);
            case kGetNumber:
                return serve(kClass, cc, mc, in, out, &Object::getNumber);
            case kGetLevel:
                return serve(kClass, cc, mc, in, out, &Object::getLevel);
            case kSetLevel:
                return serve(kClass, cc, mc, in, out, &Object::setLevel);
            case kRelay:
                return serve(kClass, cc, mc, in, out, &Object::relay);
            case kNote:
                return serve(kClass, cc, mc, in, out, &Object::note);
            default:
                return TreflectServerObject::dispatch(withResponse, cc, mc, in, out);
        }
    }

    std::string getName() { return name_; }
    unsigned int getNumber() { return number_; }
    unsigned int getLevel() { return level_; }
    void setLevel(unsigned int level) { level_ = level; }
    inline TipprmiResult<unsigned int> relay(std::string const& path);
    void note(std::string const& from) {
        if (notes_)
            notes_(from);
    }

private:
    TreflectMetaClass const& meta_;
    std::string const name_;
    unsigned int const number_;
    Notes const notes_;
    Announcement const announcement_;
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
    TipprmiResult<void> setLevel(unsigned int level) const {
        return treflectCall(*this, kClass, kSetLevel, &Object::setLevel, level);
    }
    /** Calls the objects "home" of the actors in `path` (numbers with dots between), one inside the
     * other. */
    TipprmiResult<unsigned int> relay(std::string const& path) const {
        return treflectCall(*this, kClass, kRelay, &Object::relay, path);
    }
    TipprmiResult<void> note(std::string const& from) const {
        return tipprmiSend(*this, kClass, kNote, from);
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
