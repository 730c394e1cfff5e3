#pragma once

#include <sstream>

#include "ActorProgram.h"
#include "TestTermination.h"

namespace transporttest {

/** The program transport_peer with its termination. */
class Peer : public testsupport::ActorProgram {
public:
    explicit Peer(Command const& command = testsupport::programCommand("transport_peer"))
        : ActorProgram(command),
          id_(static_cast<unsigned int>(std::strtoul(greeting().c_str(), nullptr, 16))) {}

    Transport::TerminationId id() const { return id_; }

    using ActorProgram::tell;
    void tell(std::string const& verb, Transport::TerminationId to, std::string const& rest) {
        std::ostringstream line;
        line << verb << ' ' << std::hex << to.value() << ' ' << rest;
        tell(line.str());
    }
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
