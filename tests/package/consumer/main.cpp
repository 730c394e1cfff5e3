// A program of somebody who has installed the libraries and knows nothing of their source tree.
#include <logging.h>
#include <oswrap.h>
#include <transport.h>

int main() {
    OSWrap::TimeSpec const before = OSWrap::Clock::getObsTime();
    OSWrap::TimeSpec const after = OSWrap::Clock::getObsTime();
    REFLECTORB_LOG(5, "main", "the clock went on by %lld ns", (after - before).totalNanoseconds());
    return after < before ? 1 : 0;
}
