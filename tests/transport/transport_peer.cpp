/**
 * The other process of the transport's tests and measurements: one termination that answers Echo
 * and checks Numbered messages, told what to do by lines on standard input:
 *
 *   flood <id> <count> <size>     sends Numbered messages 0 to count-1; "flooded <taken>"
 *   ping <id> <count> <size>      sends Echo and waits, count times; "pinged <p50 ns> <p99 ns>"
 *   report                        "report <received> <faults> <returned> <damaged ones returned>"
 *   blast <id> <size>             sends Numbered messages until it is killed; "blasting"
 *   stop                          stops the termination; "stopped"
 *
 * and the end of input: ends. Its first line is "ready <id>". Ids are hexadecimal.
 */
#include <algorithm>
#include <chrono>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

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

void ping(TestTermination& termination, Order const& order) {
    std::vector<long long> times;
    for (std::uint32_t i = 1; i <= order.count; ++i) {
        auto const start = std::chrono::steady_clock::now();
        if (!termination.ping(order.peer, i, order.size))
            break;
        times.push_back((std::chrono::steady_clock::now() - start).count());
    }
    std::sort(times.begin(), times.end());
    if (times.size() < order.count || times.empty())
        std::cout << "ping failed" << std::endl;
    else
        std::cout << "pinged " << times[times.size() / 2] << ' ' << times[times.size() * 99 / 100]
                  << std::endl;
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
    if (order.verb == "flood" || order.verb == "ping" || order.verb == "blast")
        termination.waitUntilKnown(order.peer);
    if (order.verb == "flood")
        flood(termination, order);
    else if (order.verb == "ping")
        ping(termination, order);
    else if (order.verb == "blast")
        blast(termination, order);
    else if (order.verb == "report")
        report(termination);
    else if (order.verb == "stop") {
        termination.stop();
        std::cout << "stopped" << std::endl;
    }
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
