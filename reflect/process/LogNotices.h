#pragma once

#include <cstdint>
#include <optional>

#include "handler_threads/RunPermission.h"
#include "reflect/notices/WatchTimer.h"

class TreflectServerObject;

/**
 * Tells those who watch the process object's last log record of new ones: at most ten times a
 * second, on the thread `ReflectWatch`, which there is for as long as somebody watches. Who logs
 * does no more than put a call into that thread's list, and that only for the first record after a
 * notice. What that thread logs itself is told with the next record of another one: else a notice
 * could be the cause of the next. One for the process, never destroyed.
 */
class LogNotices final : public WatchTimer::Due {
public:
    static LogNotices& instance();

    /** Somebody has begun to watch the attribute of the process object. */
    void begin(TreflectServerObject& object) OSW_REQUIRES_PERMISSION;
    /** Somebody has ended that. */
    void look() OSW_REQUIRES_PERMISSION;
    /** The process object goes. */
    void end() OSW_REQUIRES_PERMISSION;
    void due() override;

private:
    /** For a thread that has logged, whatever it holds. */
    static void recordCame();
    bool isWatched() const OSW_REQUIRES_PERMISSION;
    /** Whether another thread than this one has logged since the last notice. */
    bool isNews() const OSW_REQUIRES_PERMISSION;
    void tell() OSW_REQUIRES_PERMISSION;
    void awaitNext() OSW_REQUIRES_PERMISSION;

    TreflectServerObject* object_ OSW_GUARDED_BY_PERMISSION = nullptr;
    // There as long as it is watched. Then the timer is going to call, or the next record has it
    // do so.
    std::optional<WatchTimer::Use> use_ OSW_GUARDED_BY_PERMISSION;
    std::uint64_t told_ OSW_GUARDED_BY_PERMISSION = 0;  // number of the last record at that time
};
