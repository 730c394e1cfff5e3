// A process that attacks the good ones of the rendezvous folder. Arguments: ATTACK SEED
// MILLISECONDS SHARE; it takes no more than 1/SHARE of a processor, at the lowest priority, so that
// the good ones suffer from what it does and not from want of processors. Answers "rounds N".
// Without arguments: a line "ATTACK DESCRIPTION" for each that there is.
#include <sys/resource.h>

#include <csignal>
#include <ctime>

#include "ActorSide.h"
#include "Field.h"

namespace {

using namespace hostile;
using testsupport::answer;
using Clock = std::chrono::steady_clock;

Attacks allAttacks() {
    Attacks all;
    for (auto const& some :
         {strangerAttacks, channelAttacks, brokerAttacks, folderAttacks, processAttacks})
        for (Attack const& attack : some())
            all.push_back(attack);
    return all;
}

/** How much longer somebody tries who has got through no round, on a busy machine for example. */
constexpr std::chrono::seconds kPatience(10);

std::chrono::nanoseconds processorTime() {
    timespec time{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/** How many rounds. One that fails for want of something, as of an entry that another attack has
 * spoilt, is none, and the next one begins anew. */
unsigned long attack(Attack const& chosen, Field& field, Clock::time_point end, int share) {
    unsigned long rounds = 0;
    std::string failure;
    while (Clock::now() < end || (rounds == 0 && Clock::now() < end + kPatience)) {
        auto const before = processorTime();
        try {
            chosen.round(field);
            ++rounds;
        } catch (LacksRight const& reason) {
            answer("lacks ", reason.what());
            break;
        } catch (std::exception const& reason) {
            failure = reason.what();
            field.leave();
        }
        std::this_thread::sleep_for(std::max<std::chrono::nanoseconds>(
            (processorTime() - before) * (share - 1), std::chrono::microseconds(200)));
    }
    if (!failure.empty() && rounds == 0)
        answer("failed ", failure);
    return rounds;
}

}  // namespace

int main(int count, char** arguments) {
    Attacks const all = allAttacks();
    if (count != 5) {
        for (Attack const& each : all)
            answer(each.name, " ", each.what);
        return EXIT_SUCCESS;
    }
    auto const chosen = std::find_if(all.begin(), all.end(), [&](Attack const& each) {
        return std::string(arguments[1]) == each.name;
    });
    if (chosen == all.end() || ::chdir(std::getenv("TRANSPORT_DIR")) != 0)
        return EXIT_FAILURE;
    ::signal(SIGPIPE, SIG_IGN);
    ::setpriority(PRIO_PROCESS, 0, 19);
    Field field(static_cast<unsigned int>(std::atoi(arguments[2])));
    auto const end = Clock::now() + std::chrono::milliseconds(std::atoi(arguments[3]));
    answer("rounds ", attack(*chosen, field, end, std::atoi(arguments[4])));
    return EXIT_SUCCESS;
}
