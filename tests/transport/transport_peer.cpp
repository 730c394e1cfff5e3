/**
 * The other process of the transport's tests: one termination that answers Echo and checks Numbered
 * messages, told what to do by lines on standard input:
 *
 *   flood ID COUNT SIZE     sends Numbered messages 0 to COUNT-1
 *   id                      "id ID", its own
 *   ping ID                 Echo to it; "pong 1" when it answers, else "pong 0"
 *   view                    "view KNOWN GONE", how many are there, and how many have gone
 *   report                  "report RECEIVED FAULTS RETURNED DAMAGED" (of those returned)
 *
 * and the end of input: ends. Ids are decimal.
 */
#include "ActorSide.h"
#include "TestTermination.h"

using testsupport::answer;
using transporttest::TestHead;
using transporttest::TestTermination;

int main() {
    TestTermination own("peer");
    if (own.start() != 1)
        return 1;
    std::uint32_t pings = 0;
    testsupport::obeyLines([&own, &pings](std::string const& verb, std::istringstream& words) {
        unsigned int peer = 0;
        std::uint32_t count = 0;
        std::uint32_t taken = 0;
        std::size_t size = 0;
        if (verb == "id")
            answer("id ", own.termId().value());
        if (verb == "view")
            answer("view ", Transport::TransportLayer::instance().getTerminations().size(), " ",
                   own.countGone());
        if (verb == "ping" && words >> peer)
            answer("pong ", own.waitUntilKnown(peer) && own.ping(peer, ++pings));
        if (verb == "report")
            answer("report ", own.tally().received, " ", own.tally().faults, " ",
                   own.tally().returned, " ", own.tally().returnedFaults);
        if (verb != "flood" || !(words >> peer >> count >> size))
            return true;
        own.waitUntilKnown(peer);
        for (std::uint32_t i = 0; i < count; ++i)
            taken += own.send(peer, TestHead::Numbered, taken, size) == 1;
        return true;
    });
}
