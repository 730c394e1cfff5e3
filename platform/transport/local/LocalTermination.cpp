#include "platform/transport/local/LocalTermination.h"

#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Lock.h"
#include "platform/transport/local/Receiver.h"
#include "platform/transport/local/Switchboard.h"
#include "transport/TerminationImpl.h"

namespace Transport {
namespace {

constexpr char const* kSource = "LocalTermination";

/** A stopping termination waits for what it has sent to get into the channels: so long without
 * progress, and so long at most. */
constexpr long long kLinger = 200'000'000;
constexpr long long kMostLinger = 2'000'000'000;

/** The switchboard must hear of departures from the first address on. */
TerminationId reserveAddress(GroupId group, std::string const& name) {
    Switchboard::instance();
    return Rendezvous::instance().reserve(group, name);
}

}  // namespace

LocalTermination::LocalTermination(TerminationImpl& owner, GroupId group, std::string const& name)
    : owner_(owner), id_(reserveAddress(group, name)) {}

LocalTermination::~LocalTermination() {
    if (id_ != TerminationId())
        Rendezvous::instance().withdraw(id_);
}

/** Makes the receiver, once in the termination's life; null when there is one or no address. */
std::shared_ptr<Receiver> LocalTermination::makeReceiver() {
    OSWrap::Lock<> lock(mutex_);
    if (started_ || id_ == TerminationId())
        return nullptr;
    started_ = true;
    receiver_ = std::make_shared<Receiver>(id_, *this);
    return receiver_;
}

bool LocalTermination::start() {
    std::shared_ptr<Receiver> const receiver = makeReceiver();
    if (receiver == nullptr) {
        REFLECTORB_LOG(3, kSource,
                       "termination 0x%08X has no address or was started before: not started",
                       id_.value());
        return false;
    }
    if (!goVisible(receiver)) {
        receiver->refuseSending();
        Rendezvous::instance().withdraw(id_);
        receiver->stop();
        return false;
    }
    Rendezvous::instance().attach(*this);
    // A message that has come already may have stopped the termination, before it was attached.
    if (!receiver->sending())
        Rendezvous::instance().detach(*this);
    return true;
}

/** Local senders find the receiver before others can see the entry, so that no channel is ever made
 * within the process. */
bool LocalTermination::goVisible(std::shared_ptr<Receiver> const& receiver) {
    if (!receiver->prepare())
        return false;
    Switchboard::instance().add(receiver);
    OpenSocket listening(Rendezvous::instance().publish(id_));
    return listening.valid() && receiver->start(std::move(listening));
}

/**
 * In phases: (1) send nothing new, (2) no more news of others, (3) let out what was sent, (4) go
 * out of sight, (5) end the receiving thread, which closes the channels. A second call waits for
 * the same. The descriptors go with the receiver, whatever becomes of the termination.
 */
void LocalTermination::stop() {
    OSWrap::DisableCancelStateGuard const noCancel;
    std::shared_ptr<Receiver> const stopped = receiver();
    if (stopped == nullptr)
        return;
    stopped->refuseSending();
    Rendezvous::instance().detach(*this);
    if (!stopped->stopping())
        stopped->waitUntilSent(kLinger, kMostLinger);
    Rendezvous::instance().withdraw(id_);
    stopped->stop();
    if (!stopped->onReceivingThread())
        release(stopped);
}

void LocalTermination::release(std::shared_ptr<Receiver> const& stopped) {
    OSWrap::Lock<> lock(mutex_);
    if (receiver_ == stopped)
        receiver_.reset();  // not the last owner
}

bool LocalTermination::sendAgain(AddressedMessage const& message) {
    std::shared_ptr<Receiver> const own = receiver();
    return own != nullptr && own->sendAgain(message);
}

std::shared_ptr<Receiver> LocalTermination::receiver() {
    OSWrap::Lock<> lock(mutex_);
    return receiver_;
}

void LocalTermination::received(AddressedMessage const& message) {
    owner_.receive(message);
}

void LocalTermination::cameBack(AddressedMessage const& message, Reached) {
    owner_.receiveError(message);
}

void LocalTermination::arrived(TerminationId id) {
    Termination termination(id);
    owner_.appeared(termination);
}

void LocalTermination::departed(TerminationId id) {
    Termination termination(id);
    owner_.disappeare(termination);
}

}  // namespace Transport
