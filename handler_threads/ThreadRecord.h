// What this folder keeps for each thread, in the thread's own storage.
#pragma once

#include "oswrap/ConditionVar.h"
#include "oswrap/Thread.h"

namespace handlerthreads {

struct PermissionWaiter;

/** Where a thread sleeps while it is queued for the permission. Never freed, only passed on from
 * ended threads to new ones, so that it can be signalled without any lock: a signal that comes late
 * wakes somebody for nothing, who looks and sleeps again. */
struct ParkingPlace {
    OSWrap::ConditionVar condition;
    ParkingPlace* nextFree = nullptr;  // guarded by the mutex of the list of free places
};

/** The reports that a thread gets at most three times in its life; the value is the position of
 * the report's counter in ThreadRecord::misuse. */
enum class Misuse : unsigned { RemoteCallWithoutPermission = 0, GetByNonHandler = 2 };

/**
 * The calling thread as the run permission sees it. Nothing else touches it, so it needs no lock.
 * It has no destructor and therefore serves the thread until its very end, in whatever order the
 * destructors of thread-specific data run; and it goes with its thread, so a process that makes
 * many threads does not collect records of them.
 */
struct ThreadRecord {
    unsigned long id;             // OSWrap's number of the thread; 0: not asked for yet
    long tid;                     // kernel's number, for log lines
    unsigned long handlerStates;  // nested handler states
    PermissionWaiter* waiter;     // entry in the permission's queue while the thread waits there
    ParkingPlace* place;          // the thread's own, from its first wait on
    unsigned misuse;              // counters of two bits each, see Misuse
    bool misused;                 // a report has been due before

    /** Counts a misuse; whether it is to be reported. The first misuse of either kind leaves its
     * counter at 0, each further one adds 1, and 3 is silence. */
    bool reportDue(Misuse kind);
    /** The place of the calling thread, whose record this is. */
    ParkingPlace& parkingPlace();
    /** Leaves the place to other threads; the thread ends. */
    void giveUpParkingPlace();
};

#if defined(__GNUC__)
// Space in the static block of thread storage: an access is a plain memory access, without a call.
#define HANDLERTHREADS_TLS __attribute__((tls_model("initial-exec"), visibility("hidden")))
#endif
extern __thread ThreadRecord threadRecord HANDLERTHREADS_TLS;

/** Fills in the ids; the thread's first use. */
void identifyThread();

inline ThreadRecord& currentThread() {
    if (__builtin_expect(threadRecord.id == 0, 0))
        identifyThread();
    return threadRecord;
}

}  // namespace handlerthreads
