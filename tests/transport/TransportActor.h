// The test's side of the program transport_actor.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>

#include "ActorProgram.h"
#include "RendezvousFolder.h"
#include "TestTermination.h"

namespace transporttest {

/** Of a termination that was refused. */
constexpr char const* kRefused = "00000000";

class PresenceActor : public testsupport::ActorProgram {
public:
    explicit PresenceActor(Environment const& environment = {})
        : ActorProgram(testsupport::programCommand("transport_actor"), environment) {}

    std::string start(int group = 3) { return ask("start " + std::to_string(group), "id"); }
    /** "COUNT HASH agree 0" when all is well. */
    std::string view() { return ask("view", "view"); }
    std::size_t known() { return std::stoul(view()); }

    std::size_t timesTold(std::string const& what, std::string const& id) const {
        std::size_t times = 0;
        for (std::string const& line : child().lines())
            times += line.rfind(what + " ", 0) == 0 && line.substr(what.size() + 10) == id;
        return times;
    }
    bool waitUntilTold(std::string const& what, std::string const& id) const {
        return testsupport::eventually([&] { return timesTold(what, id) != 0; });
    }
};

/** A process with a termination that sends and receives. */
class Peer : public PresenceActor {
public:
    Peer() : id_(static_cast<unsigned int>(std::stoul(ask("join", "id"), nullptr, 16))) {}

    Transport::TerminationId id() const { return id_; }

    /** Has it send Numbered messages. */
    void flood(Transport::TerminationId to, std::uint32_t count, std::size_t size) {
        tell("flood " + hex(to) + " " + std::to_string(count) + " " + std::to_string(size));
    }
    bool reaches(Transport::TerminationId to) { return does("ping " + hex(to)); }
    /** "KNOWN GONE": how many terminations are there, and how many have gone. */
    std::string met() { return ask("met", "met"); }
    /** Whether it knows so many, and none has gone. */
    bool knowsAll(std::size_t count) { return met() == std::to_string(count) + " 0"; }
    TestTermination::Tally report() {
        std::istringstream words(ask("report", "report"));
        TestTermination::Tally tally;
        words >> tally.received >> tally.faults >> tally.returned >> tally.returnedFaults;
        return tally;
    }
    bool waitForReceived(std::uint32_t count) {
        return testsupport::eventually([&] { return report().received >= count; });
    }

private:
    Transport::TerminationId const id_;
};

/** A test of processes that meet in a folder of their own. */
class ActorsTest : public testing::Test {
protected:
    /** So many more, without terminations. */
    void addActors(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            actors_.push_back(std::make_unique<PresenceActor>());
    }
    /** Whether all come to know so many terminations. */
    bool allKnow(std::size_t count) {
        return std::all_of(actors_.begin(), actors_.end(), [&](auto& actor) {
            return testsupport::eventually([&] { return actor->known() == count; });
        });
    }
    /** Has all start so many terminations at once, and replace some of them so often. */
    void churn(std::size_t each, unsigned int replacements) {
        for (auto& actor : actors_)
            actor->tell("churn " + std::to_string(each) + " " + std::to_string(replacements));
        for (auto& actor : actors_)
            ASSERT_TRUE(actor->child().waitForLine("churned", std::chrono::seconds(60)))
                << testing::PrintToString(actor->child().errorLines()) << " exit "
                << actor->child().exitCode();
    }
    /** Whether all come to know the same ones, as they were told. */
    bool allAgree(std::size_t count) {
        return testsupport::eventually([&] {
            std::string const expected = actors_[0]->view();
            return std::stoul(expected) == count && expected.find(" agree 0") != expected.npos &&
                   std::all_of(actors_.begin(), actors_.end(),
                               [&](auto& actor) { return actor->view() == expected; });
        });
    }
    /** The entry that begins with an id; empty when there is none. */
    std::filesystem::path fileOf(std::string const& id) const {
        for (auto const& entry : std::filesystem::directory_iterator(folder_.path()))
            if (entry.path().filename().string().rfind(id, 0) == 0)
                return entry.path();
        return {};
    }
    std::string inFolder(std::string const& file) const { return folder_.path() + "/" + file; }
    /** The file with the locks. */
    std::string shared() const { return inFolder("presence"); }

    testsupport::RendezvousFolder const folder_;
    std::vector<std::unique_ptr<PresenceActor>> actors_;
};

}  // namespace transporttest
