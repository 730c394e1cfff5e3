#include "transport/TerminationImpl.h"

#include <vector>

#include "platform/transport/local/Channel.h"
#include "platform/transport/local/Fork.h"
#include "platform/transport/local/LocalTermination.h"
#include "platform/transport/local/Switchboard.h"

namespace Transport {
namespace {

/** Keeps what a forked child must neither use nor free: the address and the tables are its
 * parent's. */
void leaveToParent(std::unique_ptr<LocalTermination> local) {
    static auto& parents = *new std::vector<std::unique_ptr<LocalTermination>>;
    parents.push_back(std::move(local));
}

}  // namespace

TerminationImpl::TerminationImpl(GroupId group, char const* name)
    : local_(std::make_unique<LocalTermination>(*this, group, name != nullptr ? name : "")) {
    termId(local_->id());
}

TerminationImpl::~TerminationImpl() {
    if (inForkedChild()) {
        leaveToParent(std::move(local_));
        return;
    }
    TerminationImpl::stop();
}

int TerminationImpl::issue(AddressedMessage& message) {
    return Termination::issue(message);
}

int TerminationImpl::issueError(AddressedMessage const& message) {
    return Termination::issueError(message);
}

int TerminationImpl::start() {
    if (inForkedChild() || !local_->start())
        return 0;
    started();
    return 1;
}

void TerminationImpl::started() {}

void TerminationImpl::stop() {
    if (!inForkedChild())
        local_->stop();
}

bool TerminationImpl::holdBack(TerminationId peer) {
    std::shared_ptr<Channel> const channel = Switchboard::instance().find(termId(), peer);
    if (channel != nullptr)
        channel->holdBack();
    return channel != nullptr;
}

void TerminationImpl::goOn(TerminationId peer) const {
    if (std::shared_ptr<Channel> const channel = Switchboard::instance().find(termId(), peer))
        channel->goOn();
}

bool TerminationImpl::sendAgain(AddressedMessage const& message) {
    return local_->sendAgain(message);
}

void TerminationImpl::readByWorkers() {
    local_->readByWorkers();
}

AddressedMessage TerminationImpl::allocateMessage(std::size_t size, int /*priority*/,
                                                  std::size_t capacity) const {
    AddressedMessage message = AddressedMessage::allocate(size, capacity);
    message.originator(termId());
    return message;
}

}  // namespace Transport
