#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "oswrap/Export.h"

namespace Logging {

/** One of the last records, as it was emitted. A value. */
struct RecentRecord {
    std::uint64_t number = 0;  ///< counts up with each record that is kept
    int level = 0;             ///< as in Logging::Record, like the rest
    std::timespec time{};      ///< clock of the day
    long thread = 0;           ///< kernel's thread id
    std::string source;        ///< the source file's name without extension
    int line = 0;              ///< of the source file
    std::string text;          ///< cut at kMostCharacters
};

/**
 * Has the last records kept in memory as long as an object of this class lives, besides what the
 * sink does with them: kMostRecords of them, of each text the first kMostCharacters bytes (a longer
 * one ends in "..."). The memory, some 65 KB for all objects together, is taken by the first one;
 * without any, nothing is kept. A resource; any thread. Throws std::bad_alloc without memory.
 */
class REFLECTORB_API RecentRecords {
public:
    static constexpr std::size_t kMostRecords = 200;     ///< records that are kept
    static constexpr std::size_t kMostCharacters = 256;  ///< bytes of each text

    /** Begins to keep records, unless another object of the class does so already. */
    RecentRecords();
    ~RecentRecords();
    RecentRecords(RecentRecords const&) = delete;
    RecentRecords& operator=(RecentRecords const&) = delete;

    /** Called by the thread that has logged a record, within that: waits for nothing, and neither
     * logs nor throws. */
    using Wake = void (*)();

    /** The number of the last record that was kept; 0 before the first. */
    static std::uint64_t last();
    /** Whether one that is kept has a greater number than `after` and is of another thread than
     * that of the kernel's number `but`. */
    static bool areAfter(std::uint64_t after, long but);
    /** Has `wake` called once, when the next record is kept, instead of what was to be called so
     * far, which is the answer. Null for nothing. One for the process. Any thread. */
    static Wake wakeAtNext(Wake wake);
    /** Those that are kept and have a greater number than `after`, the oldest first. */
    static std::vector<RecentRecord> after(std::uint64_t after);
};

}  // namespace Logging
