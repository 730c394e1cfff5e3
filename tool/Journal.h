// What `reflectorb record` writes.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Recording.h"

/**
 * Writes a recording on a thread of its own. Observers, for whom others wait, leave records here
 * and never wait for the disk: what comes faster than it is written is kept, up to a bound, and
 * beyond that counted and dropped.
 *
 * A file that has reached its size is renamed FILE.1, that one FILE.2 and so on, and the oldest one
 * removed; the next begins with all that is needed to read it alone.
 *
 * Any thread, unless something else is said. It stays until the end of the process.
 */
class Journal {
public:
    struct Limits {
        std::uint64_t bytes = 0;  // of a file, without its head; 0: any number
        unsigned int files = 2;   // that are kept
    };
    /** What has been recorded. */
    struct Counts {
        std::uint64_t calls = 0;
        std::uint64_t values = 0;
        std::uint64_t lost = 0;
    };

    /** Begins a file; throws a Failure when that cannot be. */
    Journal(std::string path, Limits limits);
    Journal(Journal const&) = delete;
    Journal& operator=(Journal const&) = delete;

    /** Takes a record; the time must be in it. `bytes`: how much its values have. */
    void add(recording::Record record, std::size_t bytes = 0);
    /** Takes what is repeated at the begin of each file: classes and objects. */
    void addToHead(recording::Record const& record);
    /** Takes down that an object has gone, of which nothing is repeated any more. */
    void addGone(unsigned int object);
    /** Takes nothing more, and returns when all that has been taken is with the system, or cannot
     * be written. Forgets what is repeated: other objects follow. */
    void pause();
    /** Goes on. */
    void resume();
    /** Why nothing can be written any more; empty while all is well. */
    std::string failure() const;
    Counts counts() const;

private:
    using Records = std::vector<recording::Record>;

    static constexpr std::size_t kMostRecords = 20'000;  // that wait, as the next
    static constexpr std::size_t kMostBytes = 32u << 20;

    void serve();
    void write(Records const& records);
    void append(recording::Record const& record);
    void open();
    void rotate();
    void fail(std::string const& what);
    void count(recording::Record const& record);

    std::string const path_;
    Limits const limits_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    Records waiting_;  // guarded by mutex_, as all up to the thread's own
    std::size_t waitingBytes_ = 0;
    unsigned int lost_ = 0;  // that have not been told in the file yet
    bool isWriting_ = false;
    bool isPaused_ = false;
    Records head_;
    Counts counts_;
    std::string failure_;

    // Of the thread, and of the constructor before there is one.
    std::ofstream file_;
    std::uint64_t written_ = 0;
    std::thread writer_;
};
