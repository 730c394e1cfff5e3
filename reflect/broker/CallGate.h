#pragma once

#include <atomic>

/**
 * Counts the threads that are inside a broker's calls. Visiting costs two atomic operations. Who
 * deletes the broker closes the gate, sees to it that visitors find nothing to do any more, and
 * waits until the last one has left. Who comes later is turned away, so the wait has an end
 * whatever others do.
 */
class CallGate {
public:
    /** One thread's stay for a scope, if it is admitted. */
    class Visit {
    public:
        explicit Visit(CallGate& gate) : gate_(gate.enter() ? &gate : nullptr) {}
        ~Visit() {
            if (gate_)
                gate_->leave();
        }
        Visit(Visit const&) = delete;
        Visit& operator=(Visit const&) = delete;

        /** False when the gate has been closed before. */
        bool admitted() const { return gate_ != nullptr; }

    private:
        CallGate* const gate_;
    };

    CallGate() = default;
    CallGate(CallGate const&) = delete;
    CallGate& operator=(CallGate const&) = delete;

    /** From now on nobody is admitted, and the last visitor signals that it leaves. */
    void close() { word_.fetch_or(kClosed); }
    /** After `close`: returns when nobody is inside. Not a cancellation point when cancellation is
     * disabled. */
    void waitUntilEmpty();

private:
    static constexpr unsigned int kClosed = 1u << 31;

    // One that passes the first look while the gate is being closed goes at once: each thread does
    // that once at most.
    bool enter() {
        if (word_.load(std::memory_order_relaxed) & kClosed)
            return false;
        if ((word_.fetch_add(1) & kClosed) == 0)
            return true;
        leave();
        return false;
    }
    void leave() {
        if (word_.fetch_sub(1) == (kClosed | 1u))
            tellLastLeft();
    }
    static void tellLastLeft();

    std::atomic<unsigned int> word_{0};  // number of visitors, and kClosed
};
