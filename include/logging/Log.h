#pragma once

#include <ctime>

#include "oswrap/Export.h"

/**
 * Log records. A record is formatted and emitted in two steps, LogMakeString and LogDispatch, which
 * the macro REFLECTORB_LOG joins; it formats nothing when the level is above the threshold.
 *
 * Levels: 0 fatal, 2 and 3 errors, 4 warnings, 5 information, 6 notes.
 */

/** Formats the calling thread's next record. Long records are cut at 4,095 characters. No errors.
 */
REFLECTORB_API void LogMakeString(char const* format, ...) __attribute__((format(printf, 1, 2)));
/** Emits the calling thread's record to the sink, if `level` passes the threshold. `source` is the
 * source file's name without extension. */
REFLECTORB_API void LogDispatch(int level, int line, char const* source);

namespace Logging {

/** One record as the sink sees it; the pointers are valid during the call only. */
struct Record {
    int level;           ///< 0 fatal, 2 and 3 errors, 4 warnings, 5 information, 6 notes
    std::timespec time;  // clock of the day
    char const* actor;   ///< the name of the process, see setActor
    long thread;         // kernel's thread id
    char const* source;  ///< the source file's name without extension
    int line;            ///< of the source file
    char const* text;    ///< at most 4,095 characters
};

/** Receives each record, possibly from several threads at once, with no lock of the library held
 * and cancellation disabled. Runs in the thread that logs, so it must not block for long; it must
 * not throw. What a sink logs itself is dropped. */
using Sink = void (*)(Record const& record, void* context);

/**
 * Replaces the sink; null puts back the default. Returns when no record is on its way to the old
 * sink, unless called from inside that sink. Any thread.
 *
 * The default writes a line per record to standard error with one write:
 * `2024-05-17T08:15:30.123456Z level actor[thread] source:line text`, in UTC, at most 4,096 bytes
 * (which pipes do not tear apart; a longer text is cut and ends in "..."), control characters shown
 * as blanks. It waits at most 20 ms for a reader that does not keep up; after that, records are
 * dropped, and their number is told as soon as there is room again.
 */
REFLECTORB_API void setSink(Sink sink, void* context);
/** Records with a level above `level` are dropped before they are formatted (default 5). */
REFLECTORB_API void setThreshold(int level);
/** The highest level that is emitted. */
REFLECTORB_API int threshold();
/** The name that records carry; null puts back the default, the executable's name. */
REFLECTORB_API void setActor(char const* name);
/** Whether a record of this level would be emitted. */
REFLECTORB_API bool enabled(int level);

}  // namespace Logging

/** Logs a printf-style record under `source`, at no cost when its level is filtered. */
#define REFLECTORB_LOG(level, source, ...)            \
    do {                                              \
        if (::Logging::enabled(level)) {              \
            ::LogMakeString(__VA_ARGS__);             \
            ::LogDispatch((level), __LINE__, source); \
        }                                             \
    } while (false)
