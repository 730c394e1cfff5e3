#pragma once

#include <cstdint>
#include <map>

#include "platform/transport/local/Descriptor.h"
#include "platform/transport/local/Packet.h"
#include "platform/transport/local/Rendezvous.h"

namespace Transport {

class Receiver;

/**
 * The listening socket of one receiver, with those who have connected to it and not introduced
 * themselves yet. Who says Hello in time, and is who he claims to be, gets a channel; everybody
 * else is dropped with a log line. Part of the receiver; after `listen` used by its thread alone.
 */
class Acceptor {
public:
    explicit Acceptor(Receiver& receiver) : receiver_(receiver) {}
    Acceptor(Acceptor const&) = delete;
    Acceptor& operator=(Acceptor const&) = delete;

    /** Takes the listening descriptor; false, with a log line, on failure. */
    bool listen(OpenSocket listening);
    /** Takes in a bounded number of those who have connected. */
    void accept();
    /** Whether the token is that of somebody who has not introduced himself. */
    bool knows(std::uint32_t token) const { return strangers_.count(token) != 0; }
    /** Something has come from him. */
    void hear(std::uint32_t token);
    /** Drops who is late, and accepts again after a pause. */
    void serveTimers(long long now);
    /** The end: forgets everybody and listens no more. */
    void close();

    /** For tests: how long those who connect may take to introduce themselves, in nanoseconds. */
    static void introductionLimit(long long nanoseconds);

private:
    static constexpr long long kTimeToBeSeen = 100'000'000;  // nanoseconds
    /** Somebody who has connected and not introduced himself. */
    struct Stranger {
        OpenSocket socket;
        PeerIdentity identity;
        long long deadline;
        bool starved = false;       // none can be taken in for a channel
        bool heldUp = false;        // as what its process has passed is not closed yet
        long long unseenSince = 0;  // his entry has not been seen here; 0: it has
        long long hearAgainAt =
            0;  // when his Hello, which waits, is looked at again; 0: none waits

        /** For one whose Hello waits for something else, or who connects. Who is there is seen
         * soon; who claims at will to be somebody is not. */
        bool givesWay(long long now) const {
            return hearAgainAt == 0 || heldUp ||
                   (unseenSince != 0 && now - unseenSince > kTimeToBeSeen);
        }
    };

    void receive(OpenSocket socket);
    void pause(long long nanoseconds);
    void pauseForRoom();
    bool makeRoom(std::uint32_t except);
    bool keepsRoom() const;
    bool hasRoom(int fd, int others) const;
    void tellNoDescriptor() const;
    void tellBehind() const;
    void tellHeldUp(Stranger const& stranger) const;
    void tellNonsense(Stranger const& stranger) const;
    void dropOldest();
    void drop(std::uint32_t token);
    Rendezvous::Claim judge(Stranger& stranger, Transfer transfer, Packet const& hello);
    Rendezvous::Claim judgeClaim(Stranger& stranger, TerminationId claimed);
    bool introduce(Stranger& stranger, TerminationId peer);
    void keepWaiting(Stranger& stranger, long long nanoseconds);

    Receiver& receiver_;
    OpenSocket listening_;
    long long acceptAgainAt_ = 0;                  // after a pause; 0: there is none
    std::map<std::uint32_t, Stranger> strangers_;  // in the order in which they connected
};

}  // namespace Transport
