// The objects that actors serve, their classes, and the handle on them.
#pragma once

#include <cstdlib>
#include <functional>
#include <string>

#include "Permitted.h"

namespace soak {

constexpr unsigned int kClass = 0x50AC00;
constexpr unsigned int kClasses = 3;
enum Method : unsigned int { kNote = 6, kEcho = 7 };

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

class Object final : public TreflectInterface<Object> {
public:
    static constexpr auto interface() {
        return describe("Soak", kClass, attribute<&Object::getName>("Name", 1),
                        attribute<&Object::getNumber>("Number", 2),
                        attribute<&Object::getLevel, &Object::setLevel>("Level", 3, 4),
                        op<&Object::relay>("relay", 5), op<&Object::note>("note", kNote),
                        op<&Object::echo>("echo", kEcho));
    }

    /** What an object tells: "create" and "delete" before those events are sent, "created" and
     * "deleted" after that, each with its name, and "note" with what it was sent. */
    using Tell = std::function<void(char const* what, std::string const& text)>;

    /** One of the class `meta`, which is announced; null: of the class of all, and not. */
    Object(std::string const& name, std::string const& shortName, unsigned int number,
           TreflectMetaClass const* meta, TreflectObject const* parent, Tell tell)
        : TreflectInterface(named(name), parent, shortName),
          meta_(meta ? *meta : metaClass()),
          name_(name),
          number_(number),
          tell_(std::move(tell)) {
        if (&meta_ == &metaClass())
            return;
        tell_("create", name_);
        sendCreationEvent();
        tell_("created", name_);
    }
    ~Object() override {
        if (&meta_ == &metaClass())
            return;
        tell_("delete", name_);
        sendDeletionEvent();
        tell_("deleted", name_);
    }

    unsigned int getServerClassId() const override { return meta_.getClassId(); }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return meta_.classIds();
    }

    std::string getName() { return name_; }
    unsigned int getNumber() { return number_; }
    unsigned int getLevel() { return level_; }
    /** Observers forbid odd ones. */
    void setLevel(unsigned int level) { level_ = level; }
    /** Calls the objects "home" of the actors in `path` (numbers with dots between), one inside the
     * other; the number of objects called. */
    TipprmiResult<unsigned int> relay(std::string const& path) {
        if (path.empty())
            return 1u;
        std::size_t const end = path.find('.');
        std::string const rest = end == std::string::npos ? "" : path.substr(end + 1);
        TreflectClient<Object> const next(named("home." + path.substr(0, end)));
        auto const further = next.call<&Object::relay>(rest);
        if (!further)
            return TipprmiFailure(further.code());
        return further.value() + 1;
    }
    void note(std::string const& from) { tell_("note", from); }
    std::string echo(std::string const& text) { return text; }

private:
    TreflectMetaClass const& meta_;
    std::string const name_;
    unsigned int const number_;
    Tell const tell_;
    unsigned int level_ = 0;  // guarded by the run permission
};
using Client = TreflectClient<Object>;

// A cancellation of one kind of notice ends the other kind as well, so each class has its rule:
// which observers stay in every actor, and what can therefore be asked of the others.
inline TreflectMetaClass const comingMeta("SoakComing", kClass + 1, {&Object::metaClass()}, {});
inline TreflectMetaClass const goingMeta("SoakGoing", kClass + 2, {&Object::metaClass()}, {});
inline TreflectMetaClass const stayingMeta("SoakStaying", kClass + 3, {&Object::metaClass()}, {});

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

}  // namespace soak
