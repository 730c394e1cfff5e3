#include "Staying.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <list>

#include "Group.h"

namespace {

/** The signals that end or pause the program, as a descriptor: blocked for all threads that are
 * made from now on. To the end of the process. */
class Signals {
public:
    Signals() {
        sigset_t signals;
        sigemptyset(&signals);
        for (int const signal : {SIGINT, SIGTERM, SIGHUP, SIGTSTP})
            sigaddset(&signals, signal);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        descriptor_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    }

    int descriptor() const { return descriptor_; }
    /** The one that has come; 0 for none. */
    int take() const {
        signalfd_siginfo info{};
        return read(descriptor_, &info, sizeof info) == sizeof info
                   ? static_cast<int>(info.ssi_signo)
                   : 0;
    }

private:
    int descriptor_ = -1;
};

/** Sessions that are over, in a group that has been left. They are kept: at their ends observers
 * would tell those that they observed, who may hang. */
std::list<std::shared_ptr<void>>& overSessions() {
    static auto& sessions = *new std::list<std::shared_ptr<void>>;
    return sessions;
}

class Stay {
public:
    Stay(Output& output, unsigned int count) : output_(output), left_(count), limited_(count > 0) {}

    /** Waits and writes until a signal comes, which it returns, or until all is done: 0. */
    int wait(Session& session, Events& events, Signals const& signals) {
        constexpr int kNowAndThen = 200;  // milliseconds
        for (;;) {
            if (int const signal = signals.take())
                return signal;
            tell(events);
            if (!output_.flush(signals.descriptor()))
                continue;
            if ((limited_ && left_ == 0) || output_.isBroken() || !session.goOn())
                return 0;
            pollfd ready[] = {{events.descriptor(), POLLIN, 0}, {signals.descriptor(), POLLIN, 0}};
            poll(ready, 2, kNowAndThen);
        }
    }
    /** What has come up to the end. */
    void tell(Events& events) {
        std::size_t dropped = 0;
        for (Event const& event : events.take(dropped)) {
            if (limited_ && left_ == 0)
                break;
            if (!event.line.empty())
                output_.line(event.line);
            output_.event(event.json);
            left_ -= limited_ && event.counts;
        }
        if (dropped > 0)
            output_.complain(std::to_string(dropped) +
                             " events were lost, since the output was not read");
    }

private:
    Output& output_;
    unsigned int left_;  // events, if their number is limited
    bool const limited_;
};

}  // namespace

ExitCode stayInGroup(Settings const& settings, Output& output, unsigned int count,
                     std::function<std::unique_ptr<Session>(Tool&, Events&)> const& begin) {
    Signals const signals;
    Stay stay(output, count);
    int signal = 0;
    ExitCode outcome = ExitCode::kDone;
    do {
        auto const events = std::make_shared<Events>();
        overSessions().push_back(events);  // who still answers for the session may add to them
        {
            Group const group(settings.verbose);
            auto const tool = std::make_shared<Tool>(settings, output);
            overSessions().push_back(tool);
            std::shared_ptr<Session> const session = begin(*tool, *events);
            overSessions().push_back(session);
            signal = stay.wait(*session, *events, signals);
            session->end();
            outcome = session->outcome();
        }
        stay.tell(*events);
        if (signal == 0)
            output.flush(signals.descriptor());
        else
            output.flushWithoutWaiting();
        if (output.hasFailed())
            std::_Exit(static_cast<int>(ExitCode::kNoAccess));
        if (signal == SIGTSTP) {
            raise(SIGSTOP);
            output.note("-- going on; what has happened meanwhile is not known --");
        }
    } while (signal == SIGTSTP);
    // Threads may still wait for somebody who hangs, and static objects be in their use.
    std::_Exit(static_cast<int>(outcome));
}
