// A thread of an actor: does one thing after the other, as its dice decide.
#pragma once

#include <numeric>
#include <random>

#include "Watcher.h"

namespace soak {

class Player {
public:
    Player(Actor& actor, unsigned int number) : actor_(actor), number_(number) {
        Settings const& all = actor.settings;
        std::seed_seq seeds{all.seed, all.actor, all.life, number};
        random_.seed(seeds);
    }

    /** The body of the thread: acts whenever it is the turn to. */
    void run() {
        actor_.turn.follow([this] {
            act();
            return std::chrono::microseconds(dice(4000));
        });
        retire(watchers_);
        retire(leaving_);
        TreflectHandlerState const inside(true);
        objects_.clear();
        homes_.clear();
        guard_.reset();
    }
    /** Destroys all objects of this thread; while it rests, under the run permission. */
    void clear() { objects_.clear(); }

private:
    static constexpr unsigned int kPlaces = 5;
    static constexpr unsigned int kMostWatchers = 4;

    // The distributions of the standard library differ between implementations, so none is used.
    unsigned int dice(unsigned int sides) { return static_cast<unsigned int>(random_()) % sides; }
    unsigned int anyActor() { return dice(actor_.settings.actors); }

    void act() {
        struct Choice {
            unsigned int weight;
            char const* name;
            void (Player::*act)();
        };
        static std::vector<Choice> const choices{
            {12, "make", &Player::makeObject},    {10, "drop", &Player::dropObject},
            {5, "observe", &Player::observe},     {5, "unobserve", &Player::unobserve},
            {12, "ask", &Player::askKnownObject}, {6, "relay", &Player::relay},
            {8, "note", &Player::note},           {7, "attributes", &Player::useNames},
            {2, "walk", &Player::walkTree},       {3, "veto", &Player::veto}};
        Role const role = actor_.settings.role();
        // The first two publish, the next two observe.
        auto choice = choices.begin() + (role == Role::observes ? 2 : 0);
        auto const end = role == Role::all ? choices.end() : choice + 2;
        auto number = static_cast<int>(dice(std::accumulate(
            choice, end, 0u, [](unsigned int sum, auto& one) { return sum + one.weight; })));
        while ((number -= static_cast<int>(choice->weight)) >= 0)
            ++choice;
        TreflectHandlerState const inside(true);
        long long const begin = now();
        actor_.journal.write("doing", number_, choice->name);
        (this->*choice->act)();
        actor_.journal.write("did", begin, choice->name);
        for (Watchers* const all : {&watchers_, &leaving_})
            all->erase(std::remove_if(all->begin(), all->end(),
                                      [](auto const& watcher) { return watcher->isOver(); }),
                       all->end());
    }

    // ---- Objects and observers

    /** Its name is its own for ever; its place in the tree is taken over by the next one. */
    void makeObject() {
        unsigned int const place = dice(kPlaces);
        unsigned int const classIndex = dice(kClasses);
        unsigned int const parent = dice(2 * actor_.settings.actors);
        if (objects_.count(place) != 0)
            return;
        std::string const mine = "." + std::to_string(number_) + ".";
        std::string const shortName =
            std::to_string(actor_.settings.actor) + mine + std::to_string(place);
        ++made_;
        objects_[place] = std::make_unique<Object>(
            "o." + actor_.settings.name() + mine + std::to_string(made_), shortName, made_,
            classOf(classIndex), parent < actor_.settings.actors ? &home(parent) : nullptr,
            [this, classIndex](char const* what, std::string const& name) {
                actor_.journal.write(what, name, classIndex);
            });
    }
    void dropObject() { objects_.erase(dice(kPlaces)); }
    void observe() {
        unsigned int const classIndex = dice(kClasses);
        Kind const kind = dice(2) == 0 ? Kind::creations : Kind::deletions;
        bool const plusExisting = kind == Kind::creations && dice(2) == 0;
        auto const habit = static_cast<Watcher::Habit>(dice(3));
        if (watchers_.size() < kMostWatchers)
            watchers_.push_back(
                std::make_unique<Watcher>(actor_, classIndex, kind, plusExisting, habit));
    }
    void unobserve() {
        unsigned int const index = dice(kMostWatchers);
        if (index >= watchers_.size())
            return;
        watchers_[index]->unobserve();
        leaving_.push_back(std::move(watchers_[index]));
        watchers_.erase(watchers_.begin() + index);
    }

    // ---- Calls

    /** A handle on the object "home" of an actor, made when first needed. */
    Client& home(unsigned int actor) {
        std::unique_ptr<Client>& handle = homes_[actor];
        if (!handle || !handle->isConnected())
            handle = std::make_unique<Client>(named(homeOf(actor)));
        return *handle;
    }
    /** Calls the same object through another handle: what is bound to a handle ends with it. */
    Client homeForOnce(unsigned int actor) {
        Client handle;
        handle.share_(home(actor));
        return handle;
    }
    void askKnownObject() {
        Client handle;
        std::string const name = actor_.known.take(dice(16), handle);
        if (!name.empty())
            actor_.record(name, "getName", name, [&] { return handle.getName(); });
    }
    void relay() {
        unsigned int const length = 2 + dice(3);
        unsigned int const first = anyActor();
        std::string path;
        std::string targets = homeOf(first);
        for (unsigned int i = 1; i < length; ++i) {
            unsigned int const next = anyActor();
            path += (path.empty() ? "" : ".") + std::to_string(next);
            targets += "+" + homeOf(next);
        }
        actor_.record(targets, "relay", length, [&] { return home(first).relay(path); });
    }
    /** The permission is kept from the sending on, so that the handle still tells where it went. */
    void note() {
        Client const& handle = home(anyActor());
        for (unsigned int i = dice(8); i > 0; --i)
            if (handle.note(actor_.settings.name()))
                ++actor_.sent[handle.getStub_()->orbId().value()];
    }
    void useNames() {
        std::string const target = homeOf(anyActor());
        Client const handle = homeForOnce(actorOf(target));
        if (dice(2) == 0)
            actor_.record(target, "attribute", target,
                          [&] { return handle.attribute("Name").fetch<std::string>(); });
        else
            setEven(target, [&](unsigned int level) { return handle.storeLevel(level); });
    }
    template <class Set>
    void setEven(std::string const& target, Set const& set) {
        unsigned int const level = 2 * dice(1000);
        auto const done = actor_.record(target, "set", level, [&] { return set(level); });
        if (!done && done.code() == TipprmiFailure::kVetoed)
            actor_.journal.write("fault", target, "refused an even level");
    }
    void walkTree() {
        std::string const target = homeOf(anyActor());
        Client handle = homeForOnce(actorOf(target));
        std::string const path = handle.getAbsName();
        if (!path.empty() && path != "/" + target)
            actor_.journal.write("fault", target, "has the path", path);
        TipprmiSequence<TreflectObject, 0u> children = handle.getChilds();
        unsigned int const number = children.getLength();
        for (unsigned int i = 0; i < 3 && number > 0; ++i) {
            Client child;
            child.share_(children[dice(number)]);
            std::string const name = nameOf(child);
            actor_.record(name, "child", name, [&] { return child.getName(); });
        }
    }
    /** While our guard is registered an odd level is refused, as long as it is the same process. */
    void veto() {
        std::string const target = homeOf(anyActor());
        unsigned int const odd = 2 * dice(1000) + 1;
        if (!guard_)
            guard_ = std::make_unique<Guard>();
        Client handle = homeForOnce(actorOf(target));
        auto const before = handle.getNumber();
        TreflectOperation& operation = handle.operation("setLevel");
        if (!before || !operation.preObserve(guard_.get()))
            return;
        auto const taken = actor_.record(target, "veto", odd, [&] { return handle.setLevel(odd); });
        setEven(target, [&](unsigned int level) { return handle.setLevel(level); });
        auto const after = handle.getNumber();
        operation.removeObserver(guard_.get());
        if (taken && after && after.value() == before.value())
            actor_.journal.write("fault", target, "took an odd level in spite of the observer");
    }

    Actor& actor_;
    unsigned int const number_;
    std::mt19937 random_;
    unsigned int made_ = 0;
    std::map<unsigned int, std::unique_ptr<Object>> objects_;  // by the number of their place
    Watchers watchers_;
    Watchers leaving_;
    std::map<unsigned int, std::unique_ptr<Client>> homes_;
    std::unique_ptr<Guard> guard_;
};

}  // namespace soak
