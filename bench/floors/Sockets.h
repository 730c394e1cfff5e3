#pragma once

#include <string>

namespace bench {

/** Waits, at the well-known place in the folder, for the one peer to connect. */
int acceptSocket(std::string const& folder);
/** Connects to it. Ends the process with a message when nobody listens. */
int connectSocket(std::string const& folder);
/** Says that something the benchmark cannot do without failed, with errno, and ends the process. */
[[noreturn]] void die(char const* what);

}  // namespace bench
