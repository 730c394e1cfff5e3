#include "Group.h"

#include <ipprmi.h>
#include <logging.h>
#include <reflect.h>
#include <transport.h>

#include <csignal>
#include <mutex>
#include <string>

#include "Failure.h"

namespace {

/** Keeps the first error that the library logs, instead of showing what it logs, for a scope: those
 * behind it tell what follows from it. */
class Reasons {
public:
    Reasons() { Logging::setSink(&Reasons::keep, this); }
    ~Reasons() { Logging::setSink(nullptr, nullptr); }
    Reasons(Reasons const&) = delete;
    Reasons& operator=(Reasons const&) = delete;

    std::string text() {
        std::lock_guard<std::mutex> const lock(mutex_);
        return text_;
    }

private:
    static void keep(Logging::Record const& record, void* context) {
        constexpr int kError = 3;
        if (record.level > kError)
            return;
        auto& self = *static_cast<Reasons*>(context);
        std::lock_guard<std::mutex> const lock(self.mutex_);
        if (self.text_.empty())
            self.text_ = ": " + std::string(record.text);
    }

    std::mutex mutex_;
    std::string text_;  // guarded by mutex_
};

void changeStopSignal(int how) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTSTP);
    pthread_sigmask(how, &stop, nullptr);
}

bool hasJoined() {
    TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT);
    return orb && Transport::TransportLayer::instance().exists(orb->termId());
}

}  // namespace

Group::Group(bool verbose) {
    constexpr int kQuiet = 2;  // what fails is told in the program's own words
    constexpr int kAll = 5;
    changeStopSignal(SIG_BLOCK);
    Transport::Setup::failOnSilence(true);
    TreflectMetaClass::learn(true);
    Reasons reasons;
    bool const isIn = hasJoined();
    // Behind which the library has more to say at its end.
    Logging::setThreshold(verbose ? kAll : kQuiet);
    if (!isIn) {
        changeStopSignal(SIG_UNBLOCK);
        throw Failure(ExitCode::kNoAccess, "cannot join the group" + reasons.text());
    }
}

Group::~Group() {
    prepareOrbForDeletion();
    changeStopSignal(SIG_UNBLOCK);
}

NoGroup::NoGroup() {
    Logging::setSink([](Logging::Record const&, void*) {}, nullptr);
    Transport::Setup::directory("/dev/null/none");
}

NoGroup::~NoGroup() {
    prepareOrbForDeletion();
    Logging::setSink(nullptr, nullptr);
}
