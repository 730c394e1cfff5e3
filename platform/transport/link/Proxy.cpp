#include "platform/transport/link/Proxy.h"

#include <utility>

#include "oswrap/Clock.h"
#include "platform/transport/link/Record.h"
#include "platform/transport/local/Rendezvous.h"
#include "platform/transport/local/Switchboard.h"

namespace Link {
namespace {

constexpr long long kLinger = 500'000'000;
constexpr long long kLongestLinger = 3'000'000'000;

}  // namespace

Proxy::~Proxy() {
    leave();
}

bool Proxy::take(std::string const& names, Transport::Visibility visibility) {
    std::string actor, name;
    splitNames(names, actor, name);
    taken_ = Transport::Rendezvous::instance().adopt(id_, actor, name, visibility);
    if (!taken_)
        return false;
    receiver_ = std::make_shared<Transport::Receiver>(id_, *this);
    if (!receiver_->prepare())
        return false;
    Transport::Switchboard::instance().add(receiver_);
    return true;
}

bool Proxy::listen(Transport::OpenSocket listening, Transport::ReceiverPool& pool) {
    return listening.valid() && receiver_->start(std::move(listening), pool);
}

void Proxy::takeNoMore() {
    receiver_->takeNoMore();
    endsSince_ = OSWrap::Clock::nowNanoseconds();
}

bool Proxy::mayLeave() const {
    if (receiver_->unsent() == 0)
        return true;
    long long const waited = OSWrap::Clock::nowNanoseconds() - endsSince_;
    return waited >= (receiver_->returning() == 0 ? kLinger : kLongestLinger);
}

void Proxy::beginToLeave() {
    receiver_->refuseSending();
    receiver_->beginToStop();
}

void Proxy::leave() {
    if (std::exchange(taken_, false))
        Transport::Rendezvous::instance().withdraw(id_);
    if (receiver_ != nullptr) {
        receiver_->refuseSending();
        receiver_->stop();
    }
    receiver_.reset();
}

}  // namespace Link
