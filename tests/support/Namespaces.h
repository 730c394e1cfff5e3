// A network whose machines are network namespaces of this one.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace testsupport {

/** Whether a command of the shell succeeds; what it says is not shown. */
inline bool does(std::string const& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

/**
 * Machines, numbered from 1, each with a cable to a bridge in a namespace of its own, which has
 * number 0. Their addresses are known in there only. Needs root. A resource.
 */
class Namespaces {
public:
    explicit Namespaces(int machines) : machines_(machines) {
        remove();  // what one of the same process id has left
        made_ = geteuid() == 0 && does("ip netns add " + name(kHub)) &&
                does("ip -n " + name(kHub) + " link add bridge type bridge") &&
                does("ip -n " + name(kHub) + " link set bridge up");
        for (int machine = 1; machine <= machines_; ++machine)
            made_ = made_ && add(machine);
    }
    ~Namespaces() { remove(); }
    Namespaces(Namespaces const&) = delete;
    Namespaces& operator=(Namespaces const&) = delete;

    /** Whether all of it could be made. */
    bool made() const { return made_; }
    int machines() const { return machines_; }
    static std::string name(int machine) {
        return "reflectorb-" + std::to_string(getpid()) + "-" + std::to_string(machine);
    }
    // What follows answers whether it could be done.
    static bool plugIn(int machine) { return set(machine, "up"); }
    static bool unplug(int machine) { return set(machine, "down"); }
    /** What a machine sends goes nowhere; what others send comes. */
    static bool mute(int machine) { return queue(machine, "replace dev cable root blackhole"); }
    static bool unmute(int machine) { return queue(machine, "del dev cable root"); }
    /** Those of whom this holds reach each other no more, but all others. */
    static bool keepApart(int machine, bool apart) {
        return does("ip -n " + name(kHub) + " link set " + port(machine) +
                    " type bridge_slave isolated " + (apart ? "on" : "off"));
    }

private:
    static constexpr int kHub = 0;

    static std::string port(int machine) { return "port" + std::to_string(machine); }
    static bool add(int machine) {
        return does("ip netns add " + name(machine)) &&
               does("ip netns exec " + name(machine) + " true") &&
               does("ip link add cable netns " + name(machine) + " type veth peer name " +
                    port(machine) + " netns " + name(kHub)) &&
               does("ip -n " + name(kHub) + " link set " + port(machine) + " master bridge up") &&
               does("ip -n " + name(machine) + " addr add 10.77.0." + std::to_string(machine) +
                    "/24 dev cable") &&
               does("ip -n " + name(machine) + " link set lo up") && plugIn(machine);
    }
    static bool set(int machine, std::string const& state) {
        return does("ip -n " + name(machine) + " link set cable " + state);
    }
    static bool queue(int machine, std::string const& what) {
        return does("ip netns exec " + name(machine) + " tc qdisc " + what);
    }
    void remove() const {
        for (int machine = kHub; machine <= machines_; ++machine)
            does("ip netns del " + name(machine));
    }

    int const machines_;
    bool made_ = false;
};

}  // namespace testsupport
