#pragma once

#include <string>

namespace Link {

/**
 * The network interface that a machine's link uses when none is named: of those that are up, have
 * an IPv4 address and can multicast, without loopback and point-to-point ones, that of the default
 * route, or else the only one. Empty, with a log line, when there is none, or no telling which.
 */
std::string usualInterface();

}  // namespace Link
