// The actor `machine` publishes server objects that stand for this very machine: its processors,
// memory, network interfaces and disks, and the processes of programs that it is told to watch.
// They are in a tree of names: /machine, /machine/cpu0, /machine/memory, /machine/net/eth0,
// /machine/disk/root and so on; objects come and go as the parts do. It runs until it is told to
// end (SIGINT, SIGTERM).
#include <getopt.h>
#include <handler_threads.h>
#include <logging.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "Tree.h"

namespace {

constexpr timespec kInterval{0, 250'000'000};  // between two looks at the machine

sigset_t endSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

/** Waits until it is time to look at the machine again; false when the actor is to end. */
bool pause(sigset_t const& signals) {
    // Whoever waits gives the permission back, so that calls can come in.
    TreflectReleaseHandlerState const outside;
    return sigtimedwait(&signals, nullptr, &kInterval) < 0;
}

/** Answers the programs to watch. */
std::vector<std::string> readOptions(int argc, char** argv) {
    static option const kOptions[] = {{"watch-process", required_argument, nullptr, 'w'},
                                      {"node", required_argument, nullptr, 'n'},
                                      {nullptr, 0, nullptr, 0}};
    std::vector<std::string> watched;
    for (int found = 0; (found = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        if (found == 'w') {
            watched.emplace_back(optarg);
        } else if (found == 'n') {
            machine::root() = {optarg, NSID_NODE};
        } else {
            std::puts(
                "usage: machine [--watch-process PROGRAM]... [--node NAME]\n"
                "  --node   be found under this name by all machines of the node");
            std::exit(2);
        }
    }
    return watched;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> const watched = readOptions(argc, argv);
    // Blocked before the first thread is started, so that the signals wait for sigtimedwait above.
    sigset_t const signals = endSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    Logging::setThreshold(3);  // errors only

    // Objects are made, used and destroyed under the run permission.
    TreflectHandlerState const inside(true);
    Tree tree(watched);
    std::printf("machine: serving %zu objects\n", tree.size());
    std::fflush(stdout);
    while (pause(signals))
        tree.update();
    std::puts("machine: ending");
    return 0;
}
