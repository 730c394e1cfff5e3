#pragma once

#include <string>
#include <vector>

#include "logging/LineLimit.h"
#include "logging/Log.h"

namespace Transport {

/**
 * Keeps the log records of the calling thread back while it lives, and emits them at its end: a
 * sink is the user's code, and must find no lock of ours held. Declare it before the lock. Inside
 * another one it does nothing. Only records made with TRANSPORT_LOG are kept back.
 */
class DelayedLog {
public:
    DelayedLog();
    ~DelayedLog();
    DelayedLog(DelayedLog const&) = delete;
    DelayedLog& operator=(DelayedLog const&) = delete;

    /** Emits a record now or at the end of the thread's outermost DelayedLog. */
    static void add(int level, int line, char const* source, char const* format, ...)
        __attribute__((format(printf, 4, 5)));

    /** As `Logging::tellHeldBack`. */
    static void addHeldBack(unsigned long count, int level, int line, char const* source);

private:
    struct Record {
        int level;
        int line;
        char const* source;
        std::string text;
    };

    bool const outermost_;
    std::vector<Record> records_;
};

}  // namespace Transport

/** As REFLECTORB_LOG, for code that may run under a lock. */
#define TRANSPORT_LOG(level, source, ...)                                           \
    do {                                                                            \
        if (::Logging::enabled(level))                                              \
            ::Transport::DelayedLog::add((level), __LINE__, (source), __VA_ARGS__); \
    } while (false)

/** TRANSPORT_LOG for lines that others can cause at will, as REFLECTORB_LOG_LIMITED is. */
#define TRANSPORT_LOG_LIMITED(limit, level, source, ...)                                      \
    do {                                                                                      \
        unsigned long heldBackLines = 0;                                                      \
        if (::Logging::enabled(level) && (limit).pass(heldBackLines)) {                       \
            ::Transport::DelayedLog::add((level), __LINE__, (source), __VA_ARGS__);           \
            ::Transport::DelayedLog::addHeldBack(heldBackLines, (level), __LINE__, (source)); \
        }                                                                                     \
    } while (false)
