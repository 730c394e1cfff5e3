// A thread of an actor: does one thing after the other, as its dice decide.
#pragma once

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Watcher.h"

namespace soak {

class Player {
public:
    Player(Actor& actor, unsigned int number);

    /** The body of the thread: acts whenever it is the turn to. */
    void run();
    /** Destroys all objects of this thread; while it rests, under the run permission. */
    void clear() { objects_.clear(); }

private:
    using Action = void (Player::*)();
    struct Choice {
        unsigned int weight;
        char const* name;
        Action act;
    };

    static std::vector<Choice> const& choices();
    unsigned int dice(unsigned int sides);
    void act();

    void makeObject();
    void dropObject();
    void observe();
    void unobserve();
    void askKnownObject();
    void relay();
    void note();
    void readByName();
    void writeByName();
    void walkTree();
    void veto();

    /** A handle on the object "home" of an actor, made when first needed. */
    Client& home(unsigned int actor);
    /** Calls the same object through another handle: what is bound to a handle ends with it. */
    Client homeForOnce(unsigned int actor);
    void destroyWatchersThatAreOver();

    Actor& actor_;
    unsigned int const number_;
    std::mt19937 random_;
    unsigned int made_ = 0;
    std::map<unsigned int, std::unique_ptr<Object>> objects_;  // by the number of their place
    std::vector<std::unique_ptr<Watcher>> watchers_;
    std::vector<std::unique_ptr<Watcher>> leaving_;
    std::map<unsigned int, std::unique_ptr<Client>> homes_;
    std::unique_ptr<Guard> guard_;
};

}  // namespace soak
