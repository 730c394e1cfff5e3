#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/transport/link/Bus.h"
#include "platform/transport/link/Status.h"

namespace Link {

/** What the program ends with. */
enum ExitCode {
    kDone = 0,
    kNotAllLinked = 1,  // as `status` sees it
    kUsage = 2,
    kSlotTaken = 3,
    kSecondLink = 4,
    kNoLink = 5,  // that `status` could ask
};

/** What the command line and the configuration file say. A value. */
struct LinkOptions {
    BusOptions bus;  // no interface: the usual one, see usualInterface
    std::vector<int> groups = {3};
    std::string machine;
    std::string security;  // folder; empty: none
    bool open = false;
    std::optional<StatusRequest> status;  // the program is to ask a link, and to be none
};

/**
 * Reads the command line, and from the configuration file what that leaves open; says who this
 * process is (Transport::Setup) where they do. Nothing when the program is to go on; otherwise what
 * it is to end with, once it has said why on standard error.
 */
std::optional<int> readOptions(int argc, char** argv, LinkOptions& options);

}  // namespace Link
