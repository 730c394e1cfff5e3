// Objects and brokers that come and go, anywhere in the group.
#pragma once

#include <reflect.h>
#include <transport.h>

#include <deque>
#include <functional>
#include <set>
#include <string>
#include <utility>

#include "Asking.h"
#include "Processes.h"

/**
 * Hears of the objects of classes that are created and deleted. Never destroyed: others may tell as
 * long as the process lives. Of the main thread.
 */
class ClassFollower {
public:
    /** What is done with an object that comes or goes: under the run permission, and others wait.
     */
    using Notice = std::function<void(TreflectObject const& object, std::string const& className)>;
    /** Whether objects that are there already are told as created, too. */
    enum class Present { kTold, kKnown };

    ClassFollower(TreflectORB& orb, Present present, Notice created, Notice deleted)
        : orb_(orb),
          present_(present),
          created_(std::move(created)),
          deleted_(std::move(deleted)) {}
    ClassFollower(ClassFollower const&) = delete;
    ClassFollower& operator=(ClassFollower const&) = delete;

    /** Follows a class, if it does not yet: on a thread of its own, since a process that hangs
     * holds up the registration. */
    void follow(unsigned int classId, std::string const& name);
    /** Follows all that the processes know. */
    void followClassesOf(Asking& asking, Processes const& processes);

private:
    class Observer;

    TreflectORB& orb_;
    Present const present_;
    Notice const created_;
    Notice const deleted_;
    std::set<unsigned int> followed_;
};

/** Hears of brokers, and leaves them to the main thread. Never destroyed while it is registered. */
class BrokerFollower final : public TreflectOrbObserverIf {
public:
    struct Change {
        Transport::TerminationId broker;
        bool isThere;
    };

    void notify(Transport::TerminationId const& broker, Appear_t const& what) override {
        changes_.push_back({broker, what == kAppear});
    }
    /** Under the run permission. */
    std::deque<Change> take() { return std::exchange(changes_, {}); }

private:
    std::deque<Change> changes_;  // guarded by the run permission
};
