#pragma once

namespace Transport {

/** Whether this process is a forked copy of one that already used the transport and has not called
 * exec. Its threads are gone and its locks may be held by nobody, so nothing of the transport works
 * there. */
bool inForkedChild();

}  // namespace Transport
