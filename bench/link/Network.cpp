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

using testsupport::does;

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

bool Network::lose(int percent) const {
    bool done = true;
    for (int machine = 1; machine <= machines(); ++machine) {
        std::string const nft = "ip netns exec " + name(machine) + " nft ";
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

Machine::~Machine() {
    std::error_code ignored;
    std::filesystem::remove(log(), ignored);
}

std::unique_ptr<Child> Machine::run(std::vector<std::string> const& words) const {
    std::vector<std::string> all{"--in", Network::name(slot_), folder_.path(),
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
