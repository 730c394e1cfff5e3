#pragma once

#include <memory>
#include <string>

#include "platform/transport/link/ServiceManager.h"
#include "platform/transport/link/StatusSocket.h"
#include "platform/transport/local/Descriptor.h"

namespace Link {

/** How the link is, as far as the service manager is concerned. A value. */
struct Health {
    std::string state;       // what it is about
    std::size_t linked = 0;  // other machines
    std::size_t inSight = 0;
};

/** What others want to know of the link, asked on the control thread. */
class ControlListener {
public:
    virtual void logFigures() = 0;
    /** A document of JSON. */
    virtual std::string status() = 0;
    virtual Health health() = 0;
    /** Nanoseconds for which a thread has been at one thing; wakes threads to ask them. */
    virtual long long oldestDebt() = 0;

protected:
    ~ControlListener() = default;
};

/**
 * Where the control thread, which is the program's main one, waits: for signals, for what other
 * threads wake it for, for those who ask for the status, and for the time to tell the service
 * manager that all is well. That is told only while no thread that talks to another machine has
 * been at one thing for half of the manager's patience: a link that hangs is ended and begins anew.
 */
class ControlLoop {
public:
    enum class Waited {
        TimePassed,
        Woken,
        Ended,  // by a signal
    };

    /** From now on signals are for the control thread alone: every thread made later inherits
     * that. */
    explicit ControlLoop(ControlListener& listener);
    ControlLoop(ControlLoop const&) = delete;
    ControlLoop& operator=(ControlLoop const&) = delete;

    /** Lets others ask for the status, once this process is the link of the folder. */
    void openTo(std::string const& folder);
    ServiceManager const& service() const { return service_; }
    /** Shows the service manager a line of how the link is. */
    void tellStatus(std::string const& status);
    /** That the program has begun. Whoever starts it waits for that, so it is told, while this
     * thread waits, until the service manager has taken it. */
    void tellReady();
    /** For a time; whoever wakes meanwhile waits. */
    Waited waitFor(int milliseconds);
    /** Until somebody wakes, or has, or for a time; negative: for any. */
    Waited waitForWork(int milliseconds);
    /** Any thread. */
    void wake() const;

private:
    enum class Work { Waits, Wakes };

    Waited wait(long long until, Work work);
    bool takeSignals();
    void keepAlive(long long time);
    void answer(long long time);

    ControlListener& listener_;
    ServiceManager const service_;
    Transport::Descriptor signals_;
    Transport::Descriptor work_;
    std::unique_ptr<StatusSocket> status_;
    long long keepAliveAt_;
    std::string toldStatus_;  // that the manager has taken
    long long readyAt_;       // when it is told (again)
    long long answerAt_ = 0;  // not before: no descriptor was left
};

}  // namespace Link
