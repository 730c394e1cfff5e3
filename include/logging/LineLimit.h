#pragma once

#include <atomic>

#include "logging/Log.h"

namespace Logging {

/**
 * Keeps whoever can cause a log line at will, a stranger or a broken peer, from filling the log:
 * the first lines pass, then one a second, which tells how many were held back since the one
 * before. After ten quiet seconds the first lines pass again. One object per kind of line, or per
 * kind and peer; any thread, without a lock. A value: it owns nothing and needs no clean-up.
 *
 *     static Logging::LineLimit limit;
 *     REFLECTORB_LOG_LIMITED(limit, 3, kSource, "dropped process %d", pid);
 */
class REFLECTORB_API LineLimit {
public:
    /** `first`: how many lines pass before the limit begins to hold. */
    explicit constexpr LineLimit(unsigned first = 5) : first_(first) {}
    LineLimit(LineLimit const&) = delete;
    LineLimit& operator=(LineLimit const&) = delete;

    /** Whether a line may be emitted now. If so, `heldBack` tells how many were not since the
     * last that was. */
    bool pass(unsigned long& heldBack);

private:
    unsigned const first_;
    std::atomic<unsigned> passed_{0};      // of the first ones, since the last pause
    std::atomic<long long> lastAsked_{0};  // clock of `Clock::nowNanoseconds`; 0: never
    std::atomic<long long> nextAt_{0};     // when the next line may pass, likewise
    std::atomic<unsigned long> heldBack_{0};
};

/** Emits the record that tells of lines held back, if there are any. */
REFLECTORB_API void tellHeldBack(unsigned long count, int level, int line, char const* source);

}  // namespace Logging

/** REFLECTORB_LOG for lines that others can cause at will: `limit` decides whether it is emitted.
 */
#define REFLECTORB_LOG_LIMITED(limit, level, source, ...)                      \
    do {                                                                       \
        unsigned long heldBackLines = 0;                                       \
        if (::Logging::enabled(level) && (limit).pass(heldBackLines)) {        \
            ::LogMakeString(__VA_ARGS__);                                      \
            ::LogDispatch((level), __LINE__, source);                          \
            ::Logging::tellHeldBack(heldBackLines, (level), __LINE__, source); \
        }                                                                      \
    } while (false)
