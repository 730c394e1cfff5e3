#pragma once

#include <atomic>

/**
 * Counts the threads that are inside a broker's calls, and shuts them out for good. Visiting costs
 * two atomic operations. Whoever closed the gate waits until the last visitor has left; that wait
 * touches nothing of the gate that the last visitor could find freed.
 */
class CallGate {
public:
    /** One thread's stay for a scope. */
    class Visit {
    public:
        explicit Visit(CallGate& gate) : gate_(gate), admitted_(gate.enter()) {}
        ~Visit() { gate_.leave(); }
        Visit(Visit const&) = delete;
        Visit& operator=(Visit const&) = delete;
        /** False when the gate was closed before. */
        bool admitted() const { return admitted_; }

    private:
        CallGate& gate_;
        bool const admitted_;
    };

    CallGate() = default;
    CallGate(CallGate const&) = delete;
    CallGate& operator=(CallGate const&) = delete;

    /** From now on visitors are told to go away. */
    void close() { word_.fetch_or(kClosed); }
    /** After `close`: returns when nobody is inside. Not a cancellation point when cancellation is
     * disabled. */
    void waitUntilEmpty();

private:
    static constexpr unsigned int kClosed = 1u << 31;

    bool enter() { return !(word_.fetch_add(1) & kClosed); }
    void leave() {
        if (word_.fetch_sub(1) == (kClosed | 1u))
            tellLastLeft();
    }
    static void tellLastLeft();

    std::atomic<unsigned int> word_{0};  // number of visitors, and kClosed
};
