// The processes of the group, with process object and without.
#pragma once

#include <reflect.h>

#include <string>
#include <vector>

#include "Asking.h"
#include "Failure.h"
#include "Json.h"
#include "Output.h"

/** A process of the group, as the group and the system know it. A value. */
struct Process {
    int pid = 0;  // 0: of another machine, where only its process object tells it
    std::string actor;
    unsigned int slot = 0;
    std::vector<TreflectOrbId> brokers;  // that of the unit first
    bool isStopped = false;              // by a signal or a debugger
    bool hasNamesake = false;            // on its machine, which is another one
    // What the system tells; 0 for nothing.
    double uptime = 0;  // seconds
    unsigned int threads = 0;
    std::int64_t memory = 0;  // bytes that are resident

    /** "house.4711"; of another machine "house@2", by its slot, and "house@2#2010005", by its
     * broker too, where there are several. */
    std::string name() const;
    TreflectOrbId broker() const { return brokers.front(); }
};
using Processes = std::vector<Process>;

/** All but this one, by their actors and ids. Those that are stopped are given up in `asking`. */
Processes presentProcesses(Asking& asking);
/** Those whose actor, process id or name a pattern tells (see Wildcard). All for an empty pattern.
 */
Processes matching(Processes const& processes, std::string const& pattern);
/** The same; throws a Failure when there are none, unless the pattern is empty. */
Processes select(Processes const& processes, std::string const& pattern);
/** The one that has a broker; null for none. */
Process const* ownerOf(Processes const& processes, unsigned int broker);
/** Its name; the broker's number for none. */
std::string nameOfOwner(Processes const& processes, unsigned int broker);

/** Asks the process object of each; failed of one that has none. */
template <class T>
std::vector<Answer<T>> askProcessObjects(
    Asking& asking, Processes const& processes,
    std::function<std::optional<T>(TreflectProcessClient const&)> question);

/** The value of a result, if there is one. */
template <class T>
std::optional<T> valueOf(TipprmiResult<T> const& result) {
    return result ? std::optional<T>(result.value()) : std::nullopt;
}

/** Collects of which processes something is missing, and says so. A value. */
class Missing {
public:
    template <class T>
    void note(Process const& process, Answer<T> const& answer) {
        if (answer.timedOut())
            silent_.push_back(process);
        else if (!answer)
            untold_.push_back(process);
    }
    /** Complains of the silent ones; a note about those without process object. */
    void tell(Output& output) const;
    /** {"silent": [...], "withoutProcessObject": [...]} */
    Json json() const;
    bool isAnySilent() const { return !silent_.empty(); }
    /** Timed out, if anybody is silent: what has been told is not all. */
    ExitCode outcome() const { return isAnySilent() ? ExitCode::kTimedOut : ExitCode::kDone; }

private:
    Processes silent_;
    Processes untold_;
};

/** What to do so that a process tells more. */
extern char const kHowToEnable[];

// ---- Implementation -----------------------------------------------------------------------------

template <class T>
std::vector<Answer<T>> askProcessObjects(
    Asking& asking, Processes const& processes,
    std::function<std::optional<T>(TreflectProcessClient const&)> question) {
    std::vector<TreflectOrbId> brokers;
    for (Process const& process : processes)
        brokers.push_back(process.broker());
    return asking.each<T>(brokers, [brokers, question](std::size_t number) -> std::optional<T> {
        TreflectProcessClient const client = TreflectProcessClient::of(brokers[number]);
        return client.isConnected() ? question(client) : std::nullopt;
    });
}
