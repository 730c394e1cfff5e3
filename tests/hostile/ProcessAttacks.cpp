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
        require(!link.ended, "nobody lets it in");
        link.put(message(1, counters, request, ""));
        link.ring();
    } catch (std::exception const&) {
        std::_Exit(EXIT_FAILURE);
    }
    ::kill(::getpid(), SIGKILL);
    return child;
}

void awaitDeath(pid_t process) {
    int status = 0;
    ::waitpid(process, &status, 0);
    require(WIFSIGNALED(status), "it does not get so far");
}

void dieAtOnce(Field& field) {
    awaitDeath(makeShortLived(field));
}

/** A good one, which has subscribed at the others. */
void stop(Field& field) {
    testsupport::ChildProgram bystander("hostile_good", {"bystander", "good-home"});
    require(bystander.waitForLine("ready").has_value(), "a good one does not start");
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
    awaitDeath(former);
    std::ofstream last("/proc/sys/kernel/ns_last_pid");
    if (!(last << former - 1 << std::flush))
        throw LacksRight("the right to choose process ids");
    awaitDeath(makeShortLived(field));
}

}  // namespace

Attacks processAttacks() {
    return {{"deaths", "dies with an entry and a channel", dieAtOnce},
            {"stops", "stops, and goes on or dies", stop},
            {"ids", "comes again under the process id of a dead one", comeAgain}};
}

}  // namespace hostile
