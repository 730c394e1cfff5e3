#include "logging/Log.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "RecordRing.h"
#include "SinkRegistry.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Lock.h"
#include "oswrap/Thread.h"

namespace Logging {
namespace {

constexpr std::size_t kMostCharacters = 4095;

// Everything here is usable before the first and after the last static object: nothing needs to be
// built, nothing is destroyed.

/** The calling thread's record. Has no destructor, so that thread-specific destructors can log. */
thread_local char text[kMostCharacters + 1];

std::atomic<int> currentThreshold{5};
std::atomic<char const*> actor{nullptr};

/** A name that was given once; kept for ever, because a record on its way may show it. */
struct ActorName {
    char* name;
    ActorName* next;
};
ActorName* actorNames = nullptr;  // guarded by actorMutex

OSWrap::Mutex& actorMutex() {
    static OSWrap::Mutex& mutex = *new OSWrap::Mutex;
    return mutex;
}

char const* actorName() {
    char const* const given = actor.load(std::memory_order_acquire);
    return given != nullptr ? given : program_invocation_short_name;
}

/** Puts back what a caller may still want to read. */
class KeepErrno {
public:
    ~KeepErrno() { errno = value_; }

private:
    int const value_ = errno;
};

}  // namespace

void setThreshold(int level) {
    currentThreshold.store(level, std::memory_order_relaxed);
}

int threshold() {
    return currentThreshold.load(std::memory_order_relaxed);
}

bool enabled(int level) {
    return level <= threshold();
}

void setActor(char const* name) {
    OSWrap::Lock<> const lock(actorMutex());
    if (name == nullptr) {
        actor.store(nullptr, std::memory_order_release);
        return;
    }
    ActorName* known = actorNames;
    while (known != nullptr && std::strcmp(known->name, name) != 0)
        known = known->next;
    if (known == nullptr) {
        char* const copy = strdup(name);
        if (copy == nullptr)
            throw std::bad_alloc();
        known = actorNames = new ActorName{copy, actorNames};
    }
    actor.store(known->name, std::memory_order_release);
}

}  // namespace Logging

void LogMakeString(char const* format, ...) {
    if (Logging::SinkCall::running())
        return;  // the buffer holds the record that the sink is reading
    Logging::KeepErrno const keepErrno;
    va_list arguments;
    va_start(arguments, format);
    if (std::vsnprintf(Logging::text, sizeof Logging::text, format, arguments) < 0)
        Logging::text[0] = '\0';
    va_end(arguments);
}

void LogDispatch(int level, int line, char const* source) {
    if (!Logging::enabled(level) || Logging::SinkCall::running())
        return;
    Logging::KeepErrno const keepErrno;
    OSWrap::DisableCancelStateGuard const noCancel;
    Logging::Record record{};
    record.level = level;
    clock_gettime(CLOCK_REALTIME, &record.time);
    record.actor = Logging::actorName();
    record.thread = OSWrap::Thread::getCurrentTid();
    record.source = source;
    record.line = line;
    record.text = Logging::text;
    if (Logging::keepsRecords.load(std::memory_order_relaxed))
        Logging::keepRecord(record);
    Logging::SinkCall const sink;
    sink(record);
}
