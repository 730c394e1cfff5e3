#pragma once

#include <string>

namespace bench {

/**
 * One of many processes: does what its standard input says, a command per line, and answers with a
 * line each, which begins with the command's word.
 *
 * | command | answer |
 * |---|---|
 * | group <n> | when the group has n members |
 * | publish <name> | when an object of that name can be found |
 * | locate <name> | microseconds that a search took, and 1 when it found something |
 * | observe | microseconds that it took to observe creations in the whole group |
 * | create | microseconds until all observers have answered; the clock before it |
 * | told | the clock at the last notice, once there has been one since the last such question |
 * | sent | requests that it has sent to others since it was last asked |
 * | figures | resident KiB, threads, descriptors |
 *
 * Clocks are monotonic and count microseconds, the same in all processes.
 */
int memberMain(std::string const& folder);

}  // namespace bench
