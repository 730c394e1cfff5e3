#pragma once

namespace Transport {

/** From now on a forked copy of this process is told apart. Called when the first address is given:
 * a program that forks before that, to become a daemon, may use the transport in the child. */
void watchForForks();

/** Whether this process is a forked copy of one that had an address and has not called exec. Its
 * threads are gone and its locks may be held by nobody, so nothing of the transport works there. */
bool inForkedChild();

}  // namespace Transport
