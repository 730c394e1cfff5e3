// A process of the soak: what its threads share.
#pragma once

#include <array>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <utility>

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
    void offer(TreflectObject const& object, std::string const& name) {
        auto& [handle, itsName] = all_[next_++ % all_.size()];
        handle.share_(object);
        itsName = name;
    }
    /** A share of one of them and its name, or nothing. */
    std::string take(unsigned int index, Client& handle) const {
        auto const& [known, name] = all_[index % all_.size()];
        if (!name.empty())
            handle.share_(known);
        return name;
    }

private:
    std::array<std::pair<Client, std::string>, 16> all_;
    unsigned int next_ = 0;
};

/** Lets the threads act or rest, as the supervisor wants it. */
class Turn {
public:
    void go() { set(acting); }
    void end() { set(ended); }
    /** Returns when all threads rest. */
    void rest() {
        set(resting);
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return busy_ == 0; });
    }

    /** Waits until the thread may act; false when it is to end. */
    bool begin() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return state_ != resting; });
        busy_ += state_ == acting;
        return state_ == acting;
    }
    void finish() {
        std::lock_guard<std::mutex> const lock(mutex_);
        --busy_;
        changed_.notify_all();
    }

private:
    enum State { resting, acting, ended };

    void set(State state) {
        std::lock_guard<std::mutex> const lock(mutex_);
        state_ = state;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    State state_ = resting;  // guarded by mutex_
    unsigned int busy_ = 0;  // guarded by mutex_
};

/** What the threads of a process share. */
struct Actor {
    explicit Actor(Settings const& all) : settings(all), journal(all.journal) {}

    /** Makes a call, and writes down when it has ended and whether its answer was `expected`. */
    template <class T, class Call>
    TipprmiResult<T> record(std::string const& target, char const* what, T const& expected,
                            Call const& call) {
        long long const begin = now();
        TipprmiResult<T> const result = call();
        std::ostringstream verdict;
        if (!result)
            verdict << (result.code() == TipprmiFailure::kVetoed ? "vetoed" : "failed");
        else if (result.value() == expected)
            verdict << "ok";
        else
            verdict << "wrong:" << result.value();
        journal.write("call", begin, target, verdict.str(), what);
        return result;
    }

    Settings const settings;
    Journal journal;
    Turn turn;
    // Guarded by the run permission, as all below.
    KnownObjects known;
    unsigned int registrations = 0;
    std::map<unsigned int, unsigned int> sent;     // one-way calls, by the broker that took them
    std::map<std::string, unsigned int> received;  // by the name of the actor that they come from
};

}  // namespace soak
