#pragma once

namespace bench {

/**
 * One of two processes that pass each other pieces by the engine alone, as the links have it set
 * up: no session, no folder, no termination. Obeys its standard input, and answers with a line.
 *
 * | command | answer |
 * |---|---|
 * | meet | when the other one is heard |
 * | ping <seconds> <bytes> <direct> | p50, p99 and mean of round trips in microseconds |
 * | stream <count> <bytes> <batch> | seconds until the other one has all; 1: the engine gathers |
 *
 * A direct round trip is the shortest there is: each listener writes the answer by itself. Where
 * datagrams are lost a listener may not, since what it waits for then comes by its own thread;
 * other threads write there.
 */
int bareMain(unsigned char slot);

}  // namespace bench
