// A server object of a class that the test chooses, and an observer of such objects. Used by tests
// and by the program notice_actor.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "handler_threads.h"
#include "ipprmi.h"
#include "reflect.h"

/** Makes the class known to this process. Holding the run permission, or before the first broker.
 */
inline TreflectMetaObject& thingClass(unsigned int id) {
    static auto& classes = *new std::map<unsigned int, std::unique_ptr<TreflectMetaClass>>;
    auto& known = classes[id];
    if (!known)
        known = std::make_unique<TreflectMetaClass>("Thing", id,
                                                    std::vector<TreflectMetaClass const*>{},
                                                    std::vector<TreflectMetaClass::Operation>{});
    return *known;
}

/** Tells of its creation and its deletion. */
class Thing : public TreflectServerObject {
public:
    Thing(std::string const& name, unsigned int classId)
        : TreflectServerObject(TipprmiOID(name, NSID_UNIT), nullptr, name), class_(classId) {
        sendCreationEvent(&thingClass(class_));
    }
    ~Thing() override { sendDeletionEvent(&thingClass(class_)); }

    unsigned int getServerClassId() const override { return class_; }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned int, 0u> ids;
        ids.push_back(class_);
        return ids;
    }

private:
    unsigned int const class_;
};

/** Notes the names of the objects that it is told of, and reacts as its test wants. */
class Watcher : public TreflectObserver {
public:
    using Reaction = std::function<void(std::string const& name, TreflectObject const& source)>;

    explicit Watcher(std::string const& name, Reaction reaction = {})
        : TreflectObserver(TipprmiOID(name, NSID_UNIT), nullptr, name),
          reaction_(std::move(reaction)) {}

    bool update() override {
        TreflectObject const* const source = getSource();
        char const* const name = source->getStub_()->getOID().getIdString();
        told_.emplace_back(name ? name : "?");
        // A copy: the observer may be destroyed inside.
        Reaction const reaction = reaction_;
        if (reaction)
            reaction(std::string(told_.back()), *source);
        return true;
    }

    /** With the run permission. */
    std::vector<std::string> const& told() const { return told_; }
    void setReaction(Reaction reaction) { reaction_ = std::move(reaction); }

private:
    std::vector<std::string> told_;  // guarded by the run permission
    Reaction reaction_;              // likewise
};
