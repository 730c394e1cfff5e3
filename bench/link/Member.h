#pragma once

namespace bench {

/**
 * A process with a termination of the group that all machines see. Obeys its standard input, and
 * answers with a line; clocks are monotonic and count microseconds, the same in all processes.
 *
 * | command | answer |
 * |---|---|
 * | id | its termination |
 * | show <n> | when n more are in the folder, which are entries only |
 * | know <n> | the clock when n of other machines were known |
 * | lose <n> | the clock when n or less of other machines were known |
 * | stream <id> <count> <bytes> | seconds until that one has got all of them |
 */
int memberMain();

}  // namespace bench
