// Judges from the journals of all actors whether what must hold has held.
#pragma once

#include <algorithm>
#include <map>
#include <set>

#include "Journal.h"
#include "SoakObject.h"

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

inline constexpr char kOnce[] = "every observer is told once of each object";
inline constexpr char kGhost[] = "no observer is told of what has gone";
inline constexpr char kHang[] = "no call hangs longer than its rule allows";

/** Where an object's id is its address, the next object there answers to the handles of the last.
 */
inline constexpr bool kIdsStayUnused = sizeof(void*) > 4;

inline std::string milliseconds(long long microseconds) {
    return std::to_string(microseconds / 1000) + " ms";
}

/** What a map holds under a key, or what stands for nothing. */
template <class Map>
typename Map::mapped_type valueOr(Map const& map, typename Map::key_type const& key,
                                  typename Map::mapped_type nothing) {
    auto const found = map.find(key);
    return found == map.end() ? nothing : found->second;
}

template <class Map, class Condition>
void eraseIf(Map& map, Condition const& condition) {
    for (auto entry = map.begin(); entry != map.end();)
        entry = condition(*entry) ? map.erase(entry) : std::next(entry);
}

/**
 * Takes the events of each stretch in the order of their time, then judges at a fence: a moment at
 * which no actor acts, all notices have been served, and every broker has caught up with every
 * other. One thread.
 */
class Checker {
public:
    explicit Checker(Limits limits) : limits_(limits) {}

    /** `at`: just before the signal was sent. */
    void killed(Life life, long long at) { processes_[life].died = at; }
    void take(Life life, Event const& event) {
        Process& process = processes_[life];
        std::string const& verb = event.verb;
        auto const& words = event.words;
        if (verb == "begin") {
            process.begin = event.at;
        } else if (verb == "start") {
            process.termination = words.at(0);
            process.broker = words.at(1);
        } else if (verb == "up") {
            process.up = event.at;
        } else if (verb == "met") {
            process.met.emplace(words.at(0), event.at);
            if (process.lost.count(words.at(0)) != 0)
                report("no broker is told as come after it was told as gone",
                       "actor " + life.text() + " met " + words.at(0) + " last", {words.at(0)});
        } else if (verb == "lost") {
            process.lost.insert(words.at(0));
        } else if (verb == "told") {
            takeTold(life, event);
        } else if (verb == "call") {
            takeCall(life, event);
        } else if (verb == "did") {
            if (long long const took = event.at - event.number(0); took > limits_.action)
                report(kHang,
                       "actor " + life.text() + ": " + words.at(1) + " took " + milliseconds(took));
        } else if (verb == "sent" || verb == "received") {
            auto& counts = verb == "sent" ? process.sent : process.received;
            counts[words.at(0)] = event.number(1);
        } else if (verb == "fault") {
            std::string text = "actor " + life.text() + ":";
            for (std::string const& word : words)
                text += " " + word;
            report("what an actor sees itself", text, words);
        } else if (verb.find("observ") != std::string::npos) {
            takeRegistration(life, event);
        } else if (verb.rfind("create", 0) == 0 || verb.rfind("delete", 0) == 0) {
            takeObject(life, event);
        }
    }
    void fence(long long at) {
        for (auto& [life, process] : processes_)
            for (auto const& other : processes_)
                process.met.emplace(other.second.termination, at);
        eraseIf(objects_, [this](auto const& entry) {
            auto const& [name, object] = entry;
            bool const finished =
                object.deleted != kNever || processes_[object.publisher].died != kNever;
            for (auto const& [life, process] : processes_)
                for (auto const& [id, registration] : process.registrations)
                    if (finished && registration.classIndex == object.classIndex)
                        judge(name, object, life, id, registration);
            return finished;
        });
        forgetThePast(at);
        lastFence_ = at;
    }
    /** Whether the one-way calls between those alive have all come; the reasons why not. */
    std::vector<std::string> unbalanced() {
        std::vector<std::string> reasons;
        for (auto const& [from, sender] : processes_)
            for (auto const& [to, receiver] : processes_) {
                auto const sent = sender.sent.find(receiver.broker);
                if (sender.died != kNever || receiver.died != kNever || sent == sender.sent.end())
                    continue;
                long long const came = valueOr(receiver.received, from.text(), 0);
                ++tally_["balances of one-way calls"];
                if (came != sent->second)
                    reasons.push_back("actor " + from.text() + " sent " + to.text() + " " +
                                      std::to_string(sent->second) + " one-way calls, and " +
                                      std::to_string(came) + " came");
            }
        return reasons;
    }
    /** Whether an actor has caught up with a broker, and with all actors that began after it. */
    bool hasMet(Life life, std::string const& termination) const {
        auto const found = processes_.find(life);
        if (found == processes_.end() || found->second.met.count(termination) == 0)
            return false;
        Process const& process = found->second;
        return std::all_of(processes_.begin(), processes_.end(), [&](auto const& entry) {
            Process const& other = entry.second;
            return other.died != kNever || other.begin == kNever || other.begin < process.up ||
                   process.met.count(other.termination) != 0;
        });
    }
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

    // ---- What actors tell

    void takeRegistration(Life life, Event const& event) {
        static std::map<std::string, long long Registration::*> const moments{
            {"observing", &Registration::done},
            {"unobserve", &Registration::removal},
            {"unobserved", &Registration::removed}};
        Registration& registration = processes_[life].registrations[event.words.at(0)];
        if (event.verb == "observe") {
            registration.begin = event.at;
            registration.classIndex = static_cast<unsigned int>(event.number(1));
            registration.creations = event.words.at(2) == text(Kind::creations);
            registration.plusExisting = event.number(3) != 0;
        } else {
            registration.*moments.at(event.verb) = event.at;
        }
    }
    void takeObject(Life life, Event const& event) {
        static std::map<std::string, long long SoakedObject::*> const moments{
            {"create", &SoakedObject::create},
            {"created", &SoakedObject::created},
            {"delete", &SoakedObject::deletion},
            {"deleted", &SoakedObject::deleted}};
        SoakedObject& object = objects_[event.words.at(0)];
        object.*moments.at(event.verb) = event.at;
        if (event.verb == "create") {
            object.publisher = life;
            object.classIndex = static_cast<unsigned int>(event.number(1));
        }
    }
    void takeTold(Life life, Event const& event) {
        std::string const& id = event.words.at(0);
        std::string const& name = event.words.at(1);
        std::string const text = "registration " + id + " was told of " + name;
        Registration const& registration = processes_[life].registrations[id];
        auto const object = objects_.find(name);
        if (object == objects_.end()) {
            report("no observer is told of what is not there", text, {id, name});
            return;
        }
        if (object->second.classIndex != registration.classIndex)
            report("no observer is told of an object of another class", text, {id, name});
        if (event.at > registration.removed)
            report("no observer is told after its removal", text, {id, name});
        ++object->second.told[id];
        if (!registration.creations) {
            object->second.toldDeleted.insert(life);
            return;
        }
        object->second.toldCreated[life] = event.at;
        if (object->second.toldDeleted.count(life) != 0 ||
            registration.begin > object->second.deleted)
            report(kGhost, text + " after its deletion", {id, name});
        auto const publisher = processes_.find(object->second.publisher);
        if (publisher != processes_.end() &&
            processes_[life].lost.count(publisher->second.termination) != 0)
            report(kGhost, text + " after its broker", {id, name});
    }
    void takeCall(Life life, Event const& event) {
        long long const begin = event.number(0);
        std::string const& target = event.words.at(1);
        std::string const& result = event.words.at(2);
        bool const there = wasThere(target, begin, event.at);
        std::string const text = "actor " + life.text() + ": call of " + target + " (" +
                                 event.words.at(3) + ") from " + std::to_string(begin) + " took " +
                                 milliseconds(event.at - begin) + ", " + result;
        ++tally_["calls"];
        ++tally_["calls " + result.substr(0, result.find(':'))];
        if (result.rfind("wrong:", 0) == 0 && (kIdsStayUnused || there))
            report("no handle answers for the wrong object", text, {target});
        if (event.at - begin > limits_.action)
            report(kHang, text, {target});
        if (result != "failed")
            return;
        if (there)
            report("no call of an object that is there fails", text, {target});
        long long const kill = lastKill(target, begin, event.at);
        tally_["calls failed by a kill"] += kill >= 0;
        if (kill >= 0 && event.at - kill > limits_.afterKill)
            report(kHang, text + ", " + milliseconds(event.at - kill) + " after the kill",
                   {target});
    }
    /** Whether an object was there to be called in all of a stretch of time. */
    // The target of a call that goes on to others is a list with "+" between.
    bool wasThere(std::string const& target, long long from, long long to) const {
        if (std::size_t const end = target.find('+'); end != std::string::npos)
            return wasThere(target.substr(0, end), from, to) &&
                   wasThere(target.substr(end + 1), from, to);
        if (target.rfind("home.", 0) == 0)
            return std::any_of(processes_.begin(), processes_.end(), [&](auto const& entry) {
                auto const& [life, process] = entry;
                return life.actor == actorOf(target) && process.up != kNever &&
                       process.up + limits_.spread < from && process.died > to;
            });
        auto const object = objects_.find(target);
        if (object == objects_.end())
            return false;
        auto const publisher = processes_.find(object->second.publisher);
        return object->second.create < from && object->second.deletion > to &&
               publisher != processes_.end() && publisher->second.died > to;
    }
    /** The last kill of the process of `target` in a stretch of time; -1 for none. */
    long long lastKill(std::string const& target, long long from, long long to) const {
        long long last = -1;
        if (target.find('+') == std::string::npos)
            for (auto const& [life, process] : processes_)
                if (life.actor == actorOf(target) && process.died > from && process.died < to)
                    last = std::max(last, process.died);
        return last;
    }

    // ---- Judgement

    /** When the subscriber's broker had caught up with the publisher's. */
    long long settled(Life subscriber, Life publisher) const {
        if (!(subscriber < publisher) && !(publisher < subscriber))
            return 0;
        return valueOr(processes_.at(subscriber).met, processes_.at(publisher).termination, kNever);
    }
    // Of what was there before it, a registration hears if it asked for that, and of all that a
    // process has which began later. Who stays registered for deletions hears the end of all that
    // anybody beside him is told of from then on, unless its broker goes.
    bool mustHear(SoakedObject const& object, Life subscriber,
                  Registration const& registration) const {
        Process const& publisher = processes_.at(object.publisher);
        long long const met = settled(subscriber, object.publisher);
        long long const ready = std::max(registration.done, met);
        long long const leaves = std::min(registration.removal, processes_.at(subscriber).died);
        if (!registration.creations) {
            long long const told = valueOr(object.toldCreated, subscriber, -1);
            bool const stay = leaves == kNever && publisher.died == kNever;
            bool const heard = told > registration.begin && stay;
            bool const newcomers = told >= 0 && publisher.begin > registration.done &&
                                   met < std::min(leaves, publisher.died);
            return object.deleted < leaves && (heard || newcomers || ready < object.deletion);
        }
        if (ready < object.create)
            return object.created < leaves;
        return (registration.plusExisting || publisher.begin > registration.done) &&
               std::max(ready, object.created) <
                   std::min({leaves, object.deletion, publisher.died});
    }
    void judge(std::string const& name, SoakedObject const& object, Life subscriber,
               std::string const& id, Registration const& registration) {
        Kind const kind = registration.creations ? Kind::creations : Kind::deletions;
        bool const must =
            isChecked(object.classIndex, kind) && mustHear(object, subscriber, registration);
        unsigned int const times = valueOr(object.told, id, 0);
        tally_[std::string(soak::text(kind)) + " told once"] += must;
        if (times > 1 || (must && times == 0))
            report(kOnce,
                   "registration " + id + " of actor " + subscriber.text() + " for " +
                       soak::text(kind) + " was told of " + name + " " + std::to_string(times) +
                       " times",
                   {id, name});
    }
    /** What no further judgement can ask for. */
    void forgetThePast(long long at) {
        long long oldest = at;
        for (auto const& object : objects_)
            oldest = std::min(oldest, object.second.create);
        for (auto& entry : processes_)
            eraseIf(entry.second.registrations,
                    [&](auto const& registration) { return registration.second.removed < oldest; });
        eraseIf(processes_, [&](auto const& process) {
            return process.second.died < std::min(oldest, lastFence_);
        });
        std::set<std::string> known;
        for (auto const& entry : processes_)
            known.insert(entry.second.termination);
        for (auto& entry : processes_)
            eraseIf(entry.second.met, [&](auto const& met) { return known.count(met.first) == 0; });
    }

    Limits const limits_;
    std::map<Life, Process> processes_;
    std::map<std::string, SoakedObject> objects_;
    std::vector<Fault> faults_;
    Tally tally_;
    long long lastFence_ = 0;
};

}  // namespace soak
