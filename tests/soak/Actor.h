// A process of the soak: what its threads share.
#pragma once

#include <array>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Journal.h"
#include "SoakObject.h"

namespace soak {

struct Settings {
    unsigned int actor = 0;
    unsigned int life = 0;
    unsigned int seed = 0;
    unsigned int actors = 0;  // numbers 0 to actors - 1 are in use
    std::string journal;

    std::string name() const { return std::to_string(actor) + "." + std::to_string(life); }
};

/** Handles on objects that an observer was told of, for all threads to use. Used under the run
 * permission, which none of its functions gives up. */
class KnownObjects {
public:
    void offer(TreflectObject const& object, std::string const& name);
    /** A share of one of them and its name, or nothing. */
    std::string take(unsigned int index, Client& handle) const;

private:
    struct Known {
        Client handle;
        std::string name;
    };
    std::array<Known, 16> all_;
    unsigned int next_ = 0;
};

/** Lets the threads act or rest, as the supervisor wants it. */
class Turn {
public:
    void go();
    /** Returns when all threads rest. */
    void rest();
    void end();

    /** Waits until the thread may act; false when it is to end. */
    bool begin();
    void finish();

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool acting_ = false;    // guarded by mutex_
    bool ended_ = false;     // guarded by mutex_
    unsigned int busy_ = 0;  // guarded by mutex_
};

/** What the threads of a process share. */
struct Actor {
    explicit Actor(Settings const& all) : settings(all), journal(all.journal) {}

    Settings const settings;
    Journal journal;
    Turn turn;
    // Guarded by the run permission, as all below.
    KnownObjects known;
    unsigned int lastRegistration = 0;
    std::map<std::string, unsigned int> sent;      // one-way calls, by the broker that took them
    std::map<std::string, unsigned int> received;  // by the name of the actor that they come from

    std::string nextRegistration() {
        return settings.name() + "." + std::to_string(++lastRegistration);
    }
};

}  // namespace soak
