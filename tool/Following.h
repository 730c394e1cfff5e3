// Objects and brokers that come and go, anywhere in the group.
#pragma once

#include <reflect.h>
#include <transport.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "Asking.h"
#include "Objects.h"
#include "Processes.h"

/** The absolute name of an object, asked for from object to object: an object that asks its parent
 * itself would have to wait for it. An object in the making answers while it waits for us. Within
 * half a second. Under the run permission. */
std::string absoluteNameOf(TreflectObject const& object);

/** An object that has come, as its announcement tells it. A value. */
struct Newcomer {
    explicit Newcomer(TreflectObject const& object);

    Place place;
    std::string identifier;
};

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
    /** Follows all that the processes know, and that are wanted. */
    void followClassesOf(Asking& asking, Processes const& processes,
                         std::function<bool(std::string const& className)> const& wanted = {});
    bool followsAny() const { return !followed_.empty(); }
    /** Waits until everybody knows of all that it follows; false when that takes longer: objects
     * may come, then, of which nobody is told. */
    bool awaitRegistrations(std::chrono::milliseconds most);

private:
    class Observer;

    void begin(unsigned int classId, std::string const& name);

    TreflectORB& orb_;
    Present const present_;
    Notice const created_;
    Notice const deleted_;
    // Used by the thread that follows and waits.
    std::set<unsigned int> followed_;
    std::map<unsigned int, std::string> missed_;  // for which there was no thread, with names
    std::mutex mutex_;                            // a leaf
    std::condition_variable changed_;
    unsigned int pending_ = 0;  // registrations under way, or missed; guarded by mutex_
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
