#include "link/Network.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

namespace bench {
namespace {

bool does(std::string const& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

[[noreturn]] void become(std::string const& log, std::vector<std::string> const& words) {
    int const file = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    std::vector<char*> argv;
    for (std::string const& word : words)
        argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    execv(argv.front(), argv.data());
    std::perror(argv.front());
    std::_Exit(127);
}

}  // namespace

// ---- The network -------------------------------------------------------------------------------

Network::Network(int machines) : machines_(machines) {
    remove();  // what one of the same process id has left
    made_ = geteuid() == 0 && does("ip netns add " + hub()) &&
            does("ip -n " + hub() + " link add bridge type bridge") &&
            does("ip -n " + hub() + " link set bridge up");
    for (int machine = 1; machine <= machines_; ++machine)
        made_ = made_ && add(machine);
}

Network::~Network() {
    remove();
}

std::string Network::space(int machine) const {
    return "reflectorb-bench-" + std::to_string(getpid()) + "-" + std::to_string(machine);
}

bool Network::add(int machine) const {
    std::string const port = "port" + std::to_string(machine);
    std::string const here = "ip -n " + space(machine) + " ";
    return does("ip netns add " + space(machine)) &&
           does("ip netns exec " + space(machine) + " true") &&
           does("ip link add cable netns " + space(machine) + " type veth peer name " + port +
                " netns " + hub()) &&
           does("ip -n " + hub() + " link set " + port + " master bridge up") &&
           does(here + "addr add 10.77.0." + std::to_string(machine) + "/24 dev cable") &&
           does(here + "link set lo up") && does(here + "link set cable up");
}

void Network::remove() const {
    for (int machine = 0; machine <= machines_; ++machine)
        does("ip netns del " + space(machine));
}

void Network::unplug(int machine) const {
    does("ip -n " + space(machine) + " link set cable down");
}

void Network::plugIn(int machine) const {
    does("ip -n " + space(machine) + " link set cable up");
}

bool Network::lose(int percent) const {
    bool done = true;
    for (int machine = 1; machine <= machines_; ++machine) {
        std::string const nft = "ip netns exec " + space(machine) + " nft ";
        does(nft + "delete table inet loss");
        if (percent > 0)
            done = does(nft +
                        "'add table inet loss; add chain inet loss in "
                        "{ type filter hook input priority 0; }; "
                        "add rule inet loss in meta l4proto udp numgen random mod 100 < " +
                        std::to_string(percent) + " drop'") &&
                   done;
    }
    return done;
}

// ---- A machine ---------------------------------------------------------------------------------

Machine::Machine(Network const& network, int slot) : network_(network), slot_(slot) {}

Machine::~Machine() {
    std::error_code ignored;
    std::filesystem::remove(log(), ignored);
}

std::unique_ptr<Child> Machine::run(std::vector<std::string> const& words) const {
    std::vector<std::string> all{"--in", network_.space(slot_), folder_.path(),
                                 std::to_string(slot_)};
    all.insert(all.end(), words.begin(), words.end());
    return std::make_unique<Child>(all);
}

void Machine::startLink() {
    std::filesystem::remove(log());
    link_ = run({"exec", log(), LINK_PROGRAM, "--interface", "cable", "--open", "--machine",
                 "machine" + std::to_string(slot_)});
}

bool Machine::awaitLog(std::string const& text, int times) const {
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < end) {
        std::ifstream lines(log());
        int found = 0;
        for (std::string line; std::getline(lines, line);)
            found += line.find(text) != std::string::npos;
        if (found >= times)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::fprintf(stderr, "machine %d: its link has not said \"%s\"\n", slot_, text.c_str());
    return false;
}

std::vector<std::string> enterMachine(std::vector<std::string> const& words) {
    int const space = open(("/run/netns/" + words.at(1)).c_str(), O_RDONLY | O_CLOEXEC);
    if (setns(space, CLONE_NEWNET) != 0) {
        std::perror(words[1].c_str());
        std::_Exit(127);
    }
    setenv("TRANSPORT_DIR", words.at(2).c_str(), 1);
    setenv("TRANSPORT_SLOT", words.at(3).c_str(), 1);
    std::vector<std::string> rest(words.begin() + 4, words.end());
    if (rest.size() > 2 && rest[0] == "exec")
        become(rest[1], {rest.begin() + 2, rest.end()});
    return rest;
}

}  // namespace bench
