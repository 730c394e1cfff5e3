// Judges from the journals of all actors whether what must hold has held.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "Journal.h"

namespace soak {

/** One life of an actor; its text form is "ACTOR.LIFE". */
struct Life {
    unsigned int actor = 0;
    unsigned int number = 0;

    std::string text() const { return std::to_string(actor) + "." + std::to_string(number); }
    friend bool operator<(Life a, Life b) {
        return a.actor != b.actor ? a.actor < b.actor : a.number < b.number;
    }
};

/** In microseconds. */
struct Limits {
    /** For any action and any call, those that wait for other calls included. */
    long long action = 10'000'000;
    /** For a call to go on when the process that it waits for has been killed. */
    long long afterKill = 2'000'000;
    /** For everybody to know of a process that has come up or gone. */
    long long spread = 2'000'000;
};

struct Fault {
    std::string invariant;
    std::string text;
    /** Words that the lines of the evidence contain. */
    std::vector<std::string> evidence;
};

/** How often something was there to be judged, by what it is: a soak that judges nothing has shown
 * nothing. */
using Tally = std::map<std::string, unsigned long>;

/**
 * Takes the events of each stretch in the order of their time, then judges at a fence: a moment at
 * which no actor acts, all notices have been served, and every broker has caught up with every
 * other. One thread.
 */
class Checker {
public:
    explicit Checker(Limits limits) : limits_(limits) {}

    /** `at`: just before the signal was sent. */
    void killed(Life life, long long at);
    void take(Life life, Event const& event);
    void fence(long long at);
    /** Whether the one-way calls between those alive have all come; the reasons why not. */
    std::vector<std::string> unbalanced();
    /** Whether an actor has caught up with a broker, and with all actors that began after it. */
    bool hasMet(Life life, std::string const& termination) const;

    std::vector<Fault> const& faults() const { return faults_; }
    void report(std::string const& invariant, std::string const& text,
                std::vector<std::string> const& evidence = {}) {
        faults_.push_back({invariant, text, evidence});
    }
    Tally const& tally() const { return tally_; }

private:
    static constexpr long long kNever = 0x7FFFFFFFFFFFFFFF;

    struct Registration {
        unsigned int classIndex = 0;
        bool creations = false;
        bool plusExisting = false;
        long long begin = kNever;
        long long done = kNever;
        long long removal = kNever;  // begin of it
        long long removed = kNever;
    };
    struct Process {
        long long begin = kNever;
        long long up = kNever;
        long long died = kNever;
        std::string termination;
        std::string broker;
        std::map<std::string, long long> met;  // by termination
        std::set<std::string> lost;            // terminations
        std::map<std::string, Registration> registrations;
        std::map<std::string, long long> sent;      // by broker
        std::map<std::string, long long> received;  // by text of Life
    };
    struct SoakedObject {
        Life publisher;
        unsigned int classIndex = 0;
        long long create = kNever;
        long long created = kNever;
        long long deletion = kNever;  // begin of it
        long long deleted = kNever;
        std::map<std::string, unsigned int> told;  // by registration
        // The processes in which somebody was told that it was created, and when last; or deleted.
        std::map<Life, long long> toldCreated;
        std::set<Life> toldDeleted;
    };

    void takeRegistration(Life life, Event const& event);
    void takeObject(Life life, Event const& event);
    void takeTold(Life life, Event const& event);
    void takeCall(Life life, Event const& event);
    /** Whether an object was there to be called in all of a stretch of time. */
    bool wasThere(std::string const& target, long long from, long long to) const;
    /** The last kill of the process of `target` in a stretch of time; -1 for none. */
    long long lastKill(std::string const& target, long long from, long long to) const;
    void judge(std::string const& name, SoakedObject const& object, Life subscriber,
               std::string const& id, Registration const& registration);
    bool mustHear(SoakedObject const& object, Life subscriber,
                  Registration const& registration) const;
    /** When the subscriber's broker had caught up with the publisher's. */
    long long settled(Life subscriber, Life publisher) const;
    void forgetThePast(long long at);

    Limits const limits_;
    std::map<Life, Process> processes_;
    std::map<std::string, SoakedObject> objects_;
    std::vector<Fault> faults_;
    Tally tally_;
    long long lastFence_ = 0;
};

}  // namespace soak
