// By processes that stop, die, and come again under a former one's id.
#include <sys/prctl.h>
#include <sys/wait.h>

#include <fstream>

#include "ChildProgram.h"
#include "Field.h"

namespace hostile {
namespace {

/** A process that has an entry and a channel for a moment, and dies without a word. */
pid_t makeShortLived(Field& field) {
    field.leave();
    pid_t const child = ::fork();
    if (child != 0)
        return child;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
        HandMadeLink link = field.open(field.victim());
        if (!link.ended)
            link.put(message(1, counters, request, ""));
        link.ring();
    } catch (std::exception const&) {
    }
    ::kill(::getpid(), SIGKILL);
    return child;
}

void dieAtOnce(Field& field) {
    ::waitpid(makeShortLived(field), nullptr, 0);
}

/** A good one, which has subscribed at the others. */
void stop(Field& field) {
    testsupport::ChildProgram bystander("hostile_good", {"bystander", "good-home"});
    if (!bystander.waitForLine("ready"))
        return;
    bystander.writeLine("go");
    pause(field.dice(100));
    bystander.stopWholly();
    pause(100 + field.dice(400));
    if (field.dice(2) == 0) {
        bystander.signal(SIGCONT);
        pause(field.dice(50));
    }
}

/** Where the kernel lets us choose: the next process gets the id of one that has just died. */
void comeAgain(Field& field) {
    pid_t const former = makeShortLived(field);
    ::waitpid(former, nullptr, 0);
    std::ofstream("/proc/sys/kernel/ns_last_pid") << former - 1;
    ::waitpid(makeShortLived(field), nullptr, 0);
}

}  // namespace

Attacks processAttacks() {
    return {{"deaths", "dies with an entry and a channel", dieAtOnce},
            {"stops", "stops, and goes on or dies", stop},
            {"ids", "comes again under the process id of a dead one", comeAgain}};
}

}  // namespace hostile
