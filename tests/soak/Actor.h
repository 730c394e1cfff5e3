// A process of the soak: what its threads share.
#pragma once

#include <array>
#include <map>

#include "Journal.h"
#include "SoakObject.h"

namespace soak {

/** What an actor does: all there is, or one half of what notices need. */
enum class Role { all, publishes, observes };

struct Settings {
    unsigned int actor = 0;
    unsigned int life = 0;
    unsigned int seed = 0;
    unsigned int actors = 0;     // numbers 0 to actors - 1 are in use
    unsigned int observers = 0;  // if not 0, the first so many observe and the others publish
    std::string journal;

    Role role() const {
        if (observers == 0)
            return Role::all;
        return actor < observers ? Role::observes : Role::publishes;
    }
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
    testsupport::Turn turn;
    // Guarded by the run permission, as all below.
    KnownObjects known;
    unsigned int registrations = 0;
    std::map<unsigned int, unsigned int> sent;     // one-way calls, by the broker that took them
    std::map<std::string, unsigned int> received;  // by the name of the actor that they come from
};

}  // namespace soak
