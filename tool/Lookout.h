// Objects that a subcommand which goes on attends to, whenever they come.
#pragma once

#include <reflect.h>

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Following.h"
#include "Reaper.h"
#include "Staying.h"
#include "Tool.h"

/** What has come of beginning with an object. A value. */
struct Begun {
    std::shared_ptr<void> attended;      // what there is of it, such as observers; null: nothing
    ExitCode outcome = ExitCode::kDone;  // done with nothing: there is nothing to do with it
    std::string text = {};               // why it has failed
};

/** Says which objects are meant, and does with them what is to be done. To the end of the process,
 * since others may tell of objects as long. */
class Attendant {
public:
    virtual ~Attendant() = default;

    /** Those that are meant of the objects that are there. On the main thread. */
    virtual Targets find(Tool& tool) = 0;
    /** What is meant of an object that has come. Under the run permission; may ask the object. */
    virtual Targets matching(Newcomer const& newcomer) = 0;
    /** Whether objects of a class may be meant. On the main thread. */
    virtual bool concerns(std::string const& className) const = 0;
    /** Whether an object was there at the beginning. */
    enum class Comes { kAtFirst, kLater };
    /** Begins with an object. Under the run permission, with a deadline; may throw a Failure. */
    virtual Begun begin(Target const& target, Comes when) = 0;
    /** One with which it has begun, or has tried to, has gone. Under the run permission. */
    virtual void gone(Target const& target) = 0;
};

/**
 * Has an attendant begin with each object that is meant, once, and with those that come later.
 *
 * An object that announces itself waits until it is attended to, for a moment at most: what is done
 * with it from then on is not missed. Those that do not are found when their process comes. One
 * that returns is another object.
 *
 * Never destroyed. Of the main thread, without the run permission, unless something else is said.
 */
class Lookout {
public:
    Lookout(Tool& tool, Attendant& attendant);
    Lookout(Lookout const&) = delete;
    Lookout& operator=(Lookout const&) = delete;

    /** Begins with these; then hears of those that come. What has come of each of them. */
    std::vector<Begun> start(Targets const& targets);
    /** Whether any class is known of which objects might come. */
    bool expectsAny() const { return classes_.followsAny(); }
    /** To be called now and then. What has failed since, in words. */
    std::vector<std::string> tend();

private:
    using Clock = std::chrono::steady_clock;

    /** A target that is known. */
    struct Entry {
        Target target;
        std::shared_ptr<void> attended = {};
        int failures = 0;
        bool isBusy = false;  // somebody begins with it
        bool isGone = false;
        Clock::time_point goneAt = {};
    };
    /** Where it is, and which member. */
    using Key = std::pair<Place, std::string>;

    // Any thread, under the run permission.
    void created(TreflectObject const& object);
    void deleted(Place place);
    void attend(Newcomer const& newcomer);
    Begun begin(Target const& target, Attendant::Comes when);
    void noteFailure(Entry& entry, Begun const& begun, Attendant::Comes when);
    void end(Entry& entry);
    bool isKnown(Place place) const;
    void makeRoomFor(Place place);

    std::vector<Answer<Begun>> beginAll(Targets const& targets, Attendant::Comes when);
    void takeBrokers();
    void look();
    void lookAfter(std::chrono::milliseconds time);
    void reap();

    Tool& tool_;
    Attendant& attendant_;
    TreflectORB& orb_;
    ClassFollower& classes_;
    BrokerFollower& brokers_;
    Reaper& reaper_;

    // Guarded by the run permission, as all up to the next remark.
    std::map<Key, Entry> entries_;
    std::set<unsigned int> slow_;  // brokers whose objects are not kept waiting any more
    /** What there was of objects that have gone, with their brokers; to be let go of. */
    std::vector<std::pair<unsigned int, std::shared_ptr<void>>> over_;
    std::vector<std::string> failures_;
    bool wantsLook_ = false;

    // Of the main thread.
    std::set<Clock::time_point> looks_;                    // when to look around
    Clock::time_point hopeAt_ = Clock::time_point::max();  // when to ask those again who hang
    bool wasPending_ = false;
};

/** A session whose objects come and go: tells what goes wrong with them, and ends with the first of
 * that. Of the main thread. */
class LookoutSession : public Session {
public:
    ExitCode outcome() const override { return outcome_; }

protected:
    explicit LookoutSession(Tool& tool) : tool_(tool) {}

    void note(std::string const& text, ExitCode outcome) {
        tool_.output().complain(text);
        fail(outcome);
    }
    void fail(ExitCode outcome) { outcome_ = outcome_ == ExitCode::kDone ? outcome : outcome_; }

    Tool& tool_;
    ExitCode outcome_ = ExitCode::kDone;
};
