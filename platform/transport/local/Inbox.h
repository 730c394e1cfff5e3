#pragma once

#include <memory>

#include "oswrap/Mutex.h"
#include "platform/transport/MessageChain.h"

namespace Transport {

class Channel;

/**
 * What the threads of this process hand to one receiving thread: messages for the termination,
 * messages of the termination that could not be delivered, and channels to look after.
 *
 * Any thread puts in; the receiving thread takes out, and closes it at its end. Whoever has put
 * something in wakes that thread.
 */
class Inbox {
public:
    /** A message taken out, empty when there was none. */
    struct Letter {
        AddressedMessage message;
        bool comesBack;  // and goes through receiveError
    };

    Inbox() = default;
    Inbox(Inbox const&) = delete;
    Inbox& operator=(Inbox const&) = delete;

    /** All of these answer whether something has been put in. A message has no other owner. */
    bool deliver(AddressedMessage message, Room room);
    bool giveBack(AddressedMessage message);
    /** What a channel had taken: not bounded once more. */
    bool giveBack(MessageChain& messages);
    bool request(Channel& channel);
    /** From now on no message is taken, but those that come back are. */
    void refuseMessages();

    /** The oldest message, one that comes back before all others. */
    Letter take();
    /** The oldest message that comes back; empty when there is none. */
    AddressedMessage takeReturned();
    /** The first of the requested channels, with the others linked behind it. */
    std::shared_ptr<Channel> takeRequests();
    /** Takes nothing more and drops what is there, except the messages nobody has read. */
    void close(MessageChain& unread);

private:
    OSWrap::Mutex mutex_;  // a leaf: nothing is locked under it
    MessageChain messages_ OSW_GUARDED_BY(mutex_);
    MessageChain cameBack_ OSW_GUARDED_BY(mutex_);
    // The first and the last of those linked by Channel::nextRequested
    std::shared_ptr<Channel> firstRequest_ OSW_GUARDED_BY(mutex_);
    Channel* lastRequest_ OSW_GUARDED_BY(mutex_) = nullptr;
    bool refusing_ OSW_GUARDED_BY(mutex_) = false;  // messages, but not those that come back
    bool closed_ OSW_GUARDED_BY(mutex_) = false;
};

}  // namespace Transport
