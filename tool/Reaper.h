// Ends of watches that nobody waits for.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>

/**
 * Ends watches, each of which may have to wait for its object's process, for up to a minute when
 * that hangs: on a thread for each broker that has some, while it has. To the end of the process.
 * Any thread.
 */
class Reaper {
public:
    Reaper() = default;
    ~Reaper() = delete;
    Reaper(Reaper const&) = delete;
    Reaper& operator=(Reaper const&) = delete;

    /** `broker`: of the object. */
    void take(unsigned int broker, std::shared_ptr<void const> watch);

private:
    void work(unsigned int broker);

    std::mutex mutex_;  // a leaf
    // Guarded by mutex_.
    std::map<unsigned int, std::deque<std::shared_ptr<void const>>> over_;
    std::set<unsigned int> working_;  // brokers that have a thread
};
