// What subcommands that go on are told, until it is written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Json.h"

/** Something that has happened. A value. */
struct Event {
    std::string line;    // for people; empty: none
    Json json;           // for programs
    bool counts = true;  // of those whose number may be limited
    /** Fills in the line and the JSON when they are wanted, if that takes long: whoever tells is
     * waited for. On the thread that takes the event. */
    std::function<void(Event&)> rest = {};
    std::size_t bytes = 0;  // of the values in there
    std::int64_t time = 0;  // microseconds since 1970, which stand ahead of both; 0: none
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

    /** Adds one, with the time unless it has one. */
    void add(Event event);
    /** Adds one of the thread that takes them, which has a time of its own: kept in any case, since
     * that thread cannot take any before it has added all. */
    void addOwn(Event event);
    /** Readable while there are some. */
    int descriptor() const { return descriptor_; }
    /** Takes all, and `dropped`: how many were lost ahead of them. */
    std::vector<Event> take(std::size_t& dropped);

private:
    void keepLocked(Event event);

    static constexpr std::size_t kMost = 10000;
    static constexpr std::size_t kMostBytes = 64u << 20;

    int const descriptor_;
    std::mutex mutex_;           // a leaf
    std::vector<Event> events_;  // guarded by mutex_, as the next
    std::size_t bytes_ = 0;
    std::size_t dropped_ = 0;
};
