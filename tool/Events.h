// What subcommands that go on are told, until it is written.
#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "Json.h"

/** Something that has happened. A value. */
struct Event {
    std::string line;    // for people; empty: none
    Json json;           // for programs
    bool counts = true;  // of those whose number may be limited
};

/**
 * Keeps events until the main thread writes them: observers, for whom others wait, never wait for
 * whoever reads the output. Bounded; what comes beyond that is counted and dropped. Any thread.
 */
class Events {
public:
    Events();
    ~Events();
    Events(Events const&) = delete;
    Events& operator=(Events const&) = delete;

    /** Adds one, with the time. */
    void add(Event event);
    /** Adds one that has a time of its own. */
    void addAsItIs(Event event);
    /** Readable while there are some. */
    int descriptor() const { return descriptor_; }
    /** Takes all, and `dropped`: how many were lost ahead of them. */
    std::vector<Event> take(std::size_t& dropped);

private:
    static constexpr std::size_t kMost = 10000;

    int const descriptor_;
    std::mutex mutex_;           // a leaf
    std::vector<Event> events_;  // guarded by mutex_, as the next
    std::size_t dropped_ = 0;
};
