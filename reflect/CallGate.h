#pragma once

#include <atomic>

/**
 * Counts the threads that are inside a broker's calls. Visiting costs two atomic operations. Who
 * deletes the broker closes the gate, sees to it that visitors find nothing to do any more, and
 * waits until the last one has left; leaving touches nothing that could have been freed meanwhile.
 */
class CallGate {
public:
    /** One thread's stay for a scope. */
    class Visit {
    public:
        explicit Visit(CallGate& gate) : gate_(gate) { gate_.enter(); }
        ~Visit() { gate_.leave(); }
        Visit(Visit const&) = delete;
        Visit& operator=(Visit const&) = delete;

    private:
        CallGate& gate_;
    };

    CallGate() = default;
    CallGate(CallGate const&) = delete;
    CallGate& operator=(CallGate const&) = delete;

    /** From now on the last visitor tells that it leaves. */
    void close() { word_.fetch_or(kClosed); }
    /** After `close`: returns when nobody is inside. Not a cancellation point when cancellation is
     * disabled. */
    void waitUntilEmpty();

private:
    static constexpr unsigned int kClosed = 1u << 31;

    void enter() { word_.fetch_add(1); }
    void leave() {
        if (word_.fetch_sub(1) == (kClosed | 1u))
            tellLastLeft();
    }
    static void tellLastLeft();

    std::atomic<unsigned int> word_{0};  // number of visitors, and kClosed
};
