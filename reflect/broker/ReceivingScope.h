#pragma once

class TreflectORB;

/**
 * Which broker the calling thread takes messages in for. A receiving thread does so all its life,
 * from its first message on; any other thread only while it reads by itself, and calls as usual
 * afterwards. This scope is around such a reading.
 */
class ReceivingScope {
public:
    ReceivingScope() : before_(broker_) {}
    ~ReceivingScope() { broker_ = before_; }
    ReceivingScope(ReceivingScope const&) = delete;
    ReceivingScope& operator=(ReceivingScope const&) = delete;

    /** The thread has a message for `orb` in hand. */
    static void receives(TreflectORB const& orb) { broker_ = &orb; }
    /** Whether the thread takes in messages for it, and so must not wait for one. */
    static bool isReceiving(TreflectORB const& orb) { return broker_ == &orb; }

private:
    inline static thread_local TreflectORB const* broker_ = nullptr;

    TreflectORB const* const before_;
};
