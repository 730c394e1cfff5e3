#pragma once

#include <sstream>

#include "ActorProgram.h"
#include "TestTermination.h"

namespace transporttest {

/** The program transport_peer with its termination. */
class Peer : public testsupport::ActorProgram {
public:
    Peer()
        : ActorProgram("transport_peer"),
          id_(static_cast<unsigned int>(std::stoul(ask("id", "id")))) {}

    Transport::TerminationId id() const { return id_; }

    /** Has it send Numbered messages. */
    void flood(Transport::TerminationId to, std::uint32_t count, std::size_t size) {
        std::ostringstream line;
        line << "flood " << to.value() << ' ' << count << ' ' << size;
        tell(line.str());
    }
    bool reaches(Transport::TerminationId to) {
        return ask("ping " + std::to_string(to.value()), "pong") == "1";
    }
    /** Whether it knows so many terminations, and none has gone. */
    bool knowsAll(std::size_t count) { return ask("view", "view") == std::to_string(count) + " 0"; }
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

}  // namespace transporttest
