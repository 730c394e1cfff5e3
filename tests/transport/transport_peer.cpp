/**
 * The other process of the transport's tests: one termination that answers Echo and checks Numbered
 * messages, told what to do by lines on standard input:
 *
 *   flood <id> <count> <size>     sends Numbered messages 0 to count-1; "flooded <taken>"
 *   report                        "report <received> <faults> <returned> <damaged ones returned>"
 *   blast <id> <size>             sends Numbered messages until it is killed; "blasting"
 *
 * and the end of input: ends. Its first line is "ready <id>". Ids are hexadecimal.
 */
#include <iostream>
#include <sstream>
#include <string>

#include "TestTermination.h"

namespace {

using transporttest::TestHead;
using transporttest::TestTermination;

struct Order {
    std::string verb;
    Transport::TerminationId peer;
    std::uint32_t count = 0;
    std::size_t size = sizeof(TestHead);
};

void flood(TestTermination& termination, Order const& order) {
    std::uint32_t taken = 0;
    for (std::uint32_t i = 0; i < order.count; ++i)
        taken += termination.send(order.peer, TestHead::Numbered, i, order.size) == 1;
    std::cout << "flooded " << taken << std::endl;
}

[[noreturn]] void blast(TestTermination& termination, Order const& order) {
    std::cout << "blasting" << std::endl;
    std::uint32_t number = 0;
    for (;;)
        number += termination.send(order.peer, TestHead::Numbered, number, order.size) == 1;
}

void report(TestTermination const& termination) {
    TestTermination::Tally const tally = termination.tally();
    std::cout << "report " << tally.received << ' ' << tally.faults << ' ' << tally.returned << ' '
              << tally.returnedFaults << std::endl;
}

void obey(TestTermination& termination, std::string const& line) {
    std::istringstream input(line);
    Order order;
    unsigned int peer = 0;
    input >> order.verb >> std::hex >> peer >> std::dec;
    order.peer = peer;
    if (order.verb == "blast")
        input >> order.size;
    else
        input >> order.count >> order.size;
    if (order.verb == "flood" || order.verb == "blast")
        termination.waitUntilKnown(order.peer);
    if (order.verb == "flood")
        flood(termination, order);
    else if (order.verb == "blast")
        blast(termination, order);
    else if (order.verb == "report")
        report(termination);
}

}  // namespace

int main() {
    TestTermination termination("peer");
    if (termination.start() != 1)
        return 1;
    std::cout << "ready " << std::hex << termination.termId().value() << std::dec << std::endl;
    for (std::string line; std::getline(std::cin, line);)
        obey(termination, line);
    return 0;
}
