#include "platform/transport/local/Inbox.h"

#include <utility>

#include "oswrap/Lock.h"
#include "platform/transport/local/Channel.h"

namespace Transport {

bool Inbox::deliver(AddressedMessage message, Room room) {
    OSWrap::Lock<> lock(mutex_);
    if (refusing_ || !messages_.hasRoomFor(message.size(), room))
        return false;
    messages_.push(std::move(message));
    return true;
}

bool Inbox::giveBack(AddressedMessage message) {
    OSWrap::Lock<> lock(mutex_);
    if (closed_ || !cameBack_.hasRoomFor(message.size(), Room::Usual))
        return false;
    cameBack_.push(std::move(message));
    return true;
}

bool Inbox::giveBack(MessageChain& messages) {
    OSWrap::Lock<> lock(mutex_);
    if (closed_)
        return false;
    cameBack_.append(messages);
    return true;
}

bool Inbox::request(Channel& channel) {
    OSWrap::Lock<> lock(mutex_);
    if (closed_)
        return false;
    std::shared_ptr<Channel>& end =
        lastRequest_ != nullptr ? lastRequest_->nextRequested() : firstRequest_;
    end = channel.shared_from_this();
    lastRequest_ = &channel;
    return true;
}

void Inbox::refuseMessages() {
    OSWrap::Lock<> lock(mutex_);
    refusing_ = true;
}

Inbox::Letter Inbox::take() {
    OSWrap::Lock<> lock(mutex_);
    bool const comesBack = !cameBack_.empty();
    return {comesBack ? cameBack_.pop() : messages_.pop(), comesBack};
}

AddressedMessage Inbox::takeReturned() {
    OSWrap::Lock<> lock(mutex_);
    return cameBack_.pop();
}

std::shared_ptr<Channel> Inbox::takeRequests() {
    OSWrap::Lock<> lock(mutex_);
    lastRequest_ = nullptr;
    return std::move(firstRequest_);
}

void Inbox::close(MessageChain& unread) {
    MessageChain dropped;
    std::shared_ptr<Channel> requests;
    {
        OSWrap::Lock<> lock(mutex_);
        refusing_ = closed_ = true;
        unread.swap(messages_);
        dropped.swap(cameBack_);
        requests.swap(firstRequest_);
        lastRequest_ = nullptr;
    }
    // One by one: a long list would else be freed by as deep a recursion.
    while (requests != nullptr)
        requests = std::shared_ptr<Channel>(std::move(requests->nextRequested()));
}

}  // namespace Transport
