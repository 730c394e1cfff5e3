#include "Checker.h"

#include <algorithm>

#include "SoakObject.h"

namespace soak {
namespace {

/** Where an object's id is its address, the next object there answers to the handles of the last.
 */
constexpr bool kIdsStayUnused = sizeof(void*) > 4;

/** The actor of a name: of "home.ACTOR" and of "o.ACTOR.LIFE...". */
unsigned int actorOf(std::string const& name) {
    return static_cast<unsigned int>(
        std::strtoul(name.c_str() + std::min(name.size(), name.find('.') + 1), nullptr, 10));
}

bool isHome(std::string const& name) {
    return name.rfind("home.", 0) == 0;
}

std::string milliseconds(long long microseconds) {
    return std::to_string(microseconds / 1000) + " ms";
}

}  // namespace

// ---- What the supervisor knows

void Checker::started(Life life, long long) {
    processes_[life];
}

void Checker::killed(Life life, long long at) {
    processes_[life].died = at;
}

bool Checker::hasMet(Life life, std::string const& termination) const {
    auto const process = processes_.find(life);
    return process != processes_.end() && process->second.met.count(termination) != 0;
}

// ---- What actors tell

void Checker::take(Life life, Event const& event) {
    Process& process = processes_[life];
    std::string const& verb = event.verb;
    if (verb == "start") {
        process.termination = event.word(0);
        process.broker = event.word(1);
    } else if (verb == "up") {
        process.up = event.at;
    } else if (verb == "met") {
        process.met.emplace(event.word(0), event.at);
    } else if (verb == "told") {
        takeTold(life, event);
    } else if (verb == "call") {
        takeCall(life, event);
    } else if (verb == "did") {
        takeAction(life, event);
    } else if (verb == "sent") {
        process.sent[event.word(0)] = static_cast<unsigned long>(event.number(1));
    } else if (verb == "received") {
        process.received[event.word(0)] = static_cast<unsigned long>(event.number(1));
    } else if (verb == "fault") {
        std::string text = "actor " + life.text() + ":";
        for (std::string const& word : event.words)
            text += " " + word;
        report({"what an actor sees itself", text, event.words});
    } else if (verb.find("observ") != std::string::npos) {
        takeRegistration(life, event);
    } else if (verb.rfind("create", 0) == 0 || verb.rfind("delete", 0) == 0) {
        takeObject(life, event);
    }
}

void Checker::takeRegistration(Life life, Event const& event) {
    Registration& registration = processes_[life].registrations[event.word(0)];
    if (event.verb == "observe") {
        registration.classIndex = static_cast<unsigned int>(event.number(1));
        registration.creations = event.word(2) == text(Kind::creations);
        registration.plusExisting = event.number(3) != 0;
        registration.begin = event.at;
    } else if (event.verb == "observing") {
        registration.done = event.at;
    } else if (event.verb == "unobserve") {
        registration.removal = event.at;
    } else {
        registration.removed = event.at;
    }
}

void Checker::takeObject(Life life, Event const& event) {
    SoakedObject& object = objects_[event.word(0)];
    if (event.verb == "create") {
        object.publisher = life;
        object.classIndex = static_cast<unsigned int>(event.number(1));
        object.create = event.at;
    } else if (event.verb == "created") {
        object.created = event.at;
    } else if (event.verb == "delete") {
        object.deletion = event.at;
    } else {
        object.deleted = event.at;
    }
}

void Checker::takeTold(Life life, Event const& event) {
    std::string const& id = event.word(0);
    std::string const& name = event.word(1);
    Registration const& registration = processes_[life].registrations[id];
    auto const object = objects_.find(name);
    if (object == objects_.end()) {
        report({"no observer is told of what is not there",
                "registration " + id + " was told of " + name,
                {id, name}});
        return;
    }
    if (object->second.classIndex != registration.classIndex)
        report({"no observer is told of an object of another class",
                "registration " + id + " was told of " + name,
                {id, name}});
    if (event.at > registration.removed)
        report({"no observer is told after its removal",
                "registration " + id + " was told of " + name,
                {id, name}});
    ++object->second.told[id];
}

void Checker::takeAction(Life life, Event const& event) {
    if (event.at - event.number(0) > limits_.action)
        report({"no call hangs longer than its rule allows",
                "actor " + life.text() + ": " + event.word(1) + " took " +
                    milliseconds(event.at - event.number(0)),
                {event.word(1)}});
}

void Checker::takeCall(Life life, Event const& event) {
    long long const begin = event.number(0);
    std::string const& target = event.word(1);
    std::string const& result = event.word(2);
    std::string const text = "actor " + life.text() + ": call of " + target + " (" + event.word(3) +
                             ") from " + std::to_string(begin) + " took " +
                             milliseconds(event.at - begin) + ", " + result;
    ++tally_.calls;
    tally_.callsVetoed += result == "vetoed";
    if (result.rfind("wrong:", 0) == 0 && (kIdsStayUnused || wasThere(target, begin, event.at)))
        report({"no handle answers for the wrong object", text, {target}});
    if (event.at - begin > limits_.action)
        report({"no call hangs longer than its rule allows", text, {target}});
    if (result != "failed")
        return;
    ++tally_.callsFailed;
    if (wasThere(target, begin, event.at))
        report({"no call of an object that is there fails", text, {target}});
    long long const kill = lastKill(target, begin, event.at);
    tally_.callsAcrossKill += kill >= 0;
    if (kill >= 0 && event.at - kill > limits_.afterKill)
        report({"no call hangs longer than its rule allows",
                text + ", " + milliseconds(event.at - kill) + " after the kill",
                {target}});
}

bool Checker::wasUp(unsigned int actor, long long from, long long to) const {
    for (auto const& [life, process] : processes_) {
        if (life.actor == actor && process.up != kNever && process.up + limits_.spread < from &&
            process.died > to)
            return true;
    }
    return false;
}

// The target of a call that goes on to others is a list with "+" between.
bool Checker::wasThere(std::string const& target, long long from, long long to) const {
    if (std::size_t const end = target.find('+'); end != std::string::npos)
        return wasThere(target.substr(0, end), from, to) &&
               wasThere(target.substr(end + 1), from, to);
    if (isHome(target))
        return wasUp(actorOf(target), from, to);
    auto const object = objects_.find(target);
    if (object == objects_.end())
        return false;
    auto const publisher = processes_.find(object->second.publisher);
    return object->second.create < from && object->second.deletion > to &&
           publisher != processes_.end() && publisher->second.died > to;
}

long long Checker::lastKill(std::string const& target, long long from, long long to) const {
    long long last = -1;
    if (target.find('+') != std::string::npos)
        return last;
    for (auto const& [life, process] : processes_) {
        if (life.actor == actorOf(target) && process.died > from && process.died < to)
            last = std::max(last, process.died);
    }
    return last;
}

// ---- Judgement

void Checker::fence(long long at) {
    for (auto& [life, process] : processes_) {
        for (auto const& other : processes_)
            process.met.emplace(other.second.termination, at);
    }
    for (auto object = objects_.begin(); object != objects_.end();) {
        bool const finished =
            object->second.deleted != kNever || processes_[object->second.publisher].died != kNever;
        if (finished)
            judge(object->first, object->second);
        object = finished ? objects_.erase(object) : std::next(object);
    }
    forgetThePast(at);
    lastFence_ = at;
}

long long Checker::settled(Life subscriber, Life publisher) const {
    if (!(subscriber < publisher) && !(publisher < subscriber))
        return 0;
    Process const& from = processes_.at(subscriber);
    auto const met = from.met.find(processes_.at(publisher).termination);
    return met == from.met.end() ? kNever : met->second;
}

void Checker::judge(std::string const& name, SoakedObject const& object) {
    for (auto const& [life, process] : processes_) {
        for (auto const& [id, registration] : process.registrations) {
            if (registration.classIndex == object.classIndex)
                judge(name, object, life, id, registration);
        }
    }
}

void Checker::judge(std::string const& name, SoakedObject const& object, Life subscriber,
                    std::string const& id, Registration const& registration) {
    auto const found = object.told.find(id);
    unsigned int const times = found == object.told.end() ? 0 : found->second;
    Kind const kind = registration.creations ? Kind::creations : Kind::deletions;
    bool const checked = isChecked(object.classIndex, kind);
    long long const begin = registration.creations ? object.create : object.deletion;
    long long const end = registration.creations ? object.created : object.deleted;
    long long const ready = std::max(registration.done, settled(subscriber, object.publisher));
    long long const leaves = std::min(registration.removal, processes_.at(subscriber).died);
    std::string const text = "registration " + id + " of actor " + subscriber.text() + " for " +
                             soak::text(kind) + " was told of " + name + " " +
                             std::to_string(times) + " times";
    std::vector<std::string> const evidence{id, name};
    if (ready < begin && end < leaves && (checked || times > 1)) {
        ++(registration.creations ? tally_.creationsOnce : tally_.deletionsOnce);
        if (times != 1)
            report({"every event is told exactly once per registration", text, evidence});
        return;
    }
    if (!registration.creations && times > 1)
        report({"no deletion is told twice", text, evidence});
    long long const there = std::max(ready, object.created);
    long long const publisherEnd = processes_.at(object.publisher).died;
    if (checked && registration.creations && registration.plusExisting && there < kNever &&
        there < leaves && there < object.deletion && there < publisherEnd) {
        ++tally_.creationsAtLeastOnce;
        if (times == 0)
            report({"existing objects are told at least once", text, evidence});
    }
}

std::vector<std::string> Checker::unbalanced() {
    std::vector<std::string> reasons;
    for (auto const& [from, sender] : processes_) {
        for (auto const& [to, receiver] : processes_) {
            auto const sent = sender.sent.find(receiver.broker);
            if (sender.died != kNever || receiver.died != kNever || sent == sender.sent.end())
                continue;
            auto const received = receiver.received.find(from.text());
            unsigned long const came = received == receiver.received.end() ? 0 : received->second;
            ++tally_.oneWayBalances;
            if (came != sent->second)
                reasons.push_back("actor " + from.text() + " sent " + to.text() + " " +
                                  std::to_string(sent->second) + " one-way calls, and " +
                                  std::to_string(came) + " came");
        }
    }
    return reasons;
}

/** What no further judgement can ask for. */
void Checker::forgetThePast(long long at) {
    long long oldest = at;
    for (auto const& object : objects_)
        oldest = std::min(oldest, object.second.create);
    for (auto process = processes_.begin(); process != processes_.end();) {
        auto& registrations = process->second.registrations;
        for (auto registration = registrations.begin(); registration != registrations.end();) {
            bool const past = registration->second.removed < oldest;
            registration = past ? registrations.erase(registration) : std::next(registration);
        }
        bool const past = process->second.died < std::min(oldest, lastFence_);
        process = past ? processes_.erase(process) : std::next(process);
    }
    for (auto& entry : processes_) {
        auto& met = entry.second.met;
        for (auto term = met.begin(); term != met.end();) {
            bool const known = std::any_of(
                processes_.begin(), processes_.end(),
                [&](auto const& other) { return other.second.termination == term->first; });
            term = known ? std::next(term) : met.erase(term);
        }
    }
}

}  // namespace soak
