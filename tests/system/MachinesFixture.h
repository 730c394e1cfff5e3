// Two machines whose links have met, and a ledger of what one sends to the other.
#pragma once

#include "Machines.h"

namespace machines {

class MachinesTest : public testing::Test {
protected:
    void SetUp() override {
        if (!network.made())
            GTEST_SKIP() << "network namespaces need root, iproute2, and the right to enter them";
        one.startLink();
        two.startLink();
        awaitLinked();
    }
    void TearDown() override {
        for (Machine* machine : {&one, &two})
            if (HasFailure() && machine->link)
                for (std::string const& line : machine->link->errorLines())
                    std::printf("%s\n", line.c_str());
    }
    void awaitLinked() {
        one.awaitLinked();
        two.awaitLinked();
    }
    /** A termination on each machine; those of the other one are known to each. */
    void join() {
        sender = one.actor("transport_actor");
        receiver = two.actor("transport_actor");
        senderId = sender->ask("join", "id");
        receiverId = receiver->ask("join", "id");
        EXPECT_TRUE(sender->does("ping " + receiverId));
        EXPECT_TRUE(receiver->does("ping " + senderId));
    }
    struct Report {
        unsigned long received = 0, faults = 0, returned = 0, damaged = 0;
    };
    static Report reportOf(ActorProgram& actor) {
        std::istringstream words(actor.ask("report", "report"));
        Report report;
        words >> report.received >> report.faults >> report.returned >> report.damaged;
        return report;
    }
    /** How often each number has come, or has come back, as the actor writes it in runs. */
    static std::vector<unsigned> timesOf(ActorProgram& actor, std::string const& what,
                                         std::string const& id, std::size_t numbers) {
        std::istringstream runs(actor.ask(what + " " + id, what));
        std::vector<unsigned> times;
        unsigned often = 0;
        std::size_t count = 0;
        for (char by = 0; runs >> often >> by >> count;)
            times.insert(times.end(), count, often);
        times.resize(numbers);
        return times;
    }
    /** Of each message that was accepted. */
    struct Ledger {
        unsigned long accepted = 0, lost = 0, both = 0, doubled = 0;
        bool settled() const { return accepted > 0 && lost == 0; }
    };
    Ledger ledgerOf(ActorProgram& to, std::string const& id) {
        Ledger ledger;
        ledger.accepted =
            std::strtoul(sender->ask("accepted " + id, "accepted").c_str(), nullptr, 10);
        auto const came = timesOf(to, "came", senderId, ledger.accepted);
        auto const back = timesOf(*sender, "back", id, ledger.accepted);
        for (std::size_t i = 0; i < ledger.accepted; ++i) {
            ledger.lost += came[i] + back[i] == 0;
            ledger.both += came[i] > 0 && back[i] > 0;
            ledger.doubled += came[i] > 1 || back[i] > 1;
        }
        return ledger;
    }
    /** Each message that was accepted has been delivered or has come back, and no more than once:
     * both only when what settled it was lost. */
    void awaitAllAccountedFor() { awaitAllAccountedFor(*receiver, receiverId); }
    void awaitAllAccountedFor(ActorProgram& to, std::string const& id) {
        EXPECT_SOON(ledgerOf(to, id).settled());
        Ledger const end = ledgerOf(to, id);
        EXPECT_EQ(end.lost, 0u);
        EXPECT_EQ(end.doubled, 0u);
        EXPECT_EQ(reportOf(*sender).damaged, 0u);
    }

    Network network;
    Machine one{1}, two{2};
    std::unique_ptr<ActorProgram> sender, receiver;
    std::string senderId, receiverId;
};

}  // namespace machines
