#include "transport/WorkWait.h"

#include "oswrap/OutOfMemory.h"
#include "platform/transport/local/Channel.h"
#include "platform/transport/local/Fork.h"
#include "platform/transport/local/Receiver.h"
#include "platform/transport/local/Switchboard.h"
#include "platform/transport/local/WorkerSet.h"
#include "transport/AnswerWait.h"

namespace Transport {
namespace {

/** A worker takes in what there is. */
class NothingAwaited final : public AnswerWait::Awaited {
public:
    bool hasCome() const override { return false; }
};

}  // namespace

WorkWait::WorkWait() = default;

WorkWait::~WorkWait() = default;

void WorkWait::open(TerminationId own) {
    receiver_ = Switchboard::instance().receiver(own);
    if (receiver_ != nullptr && !receiver_->workers().valid())
        receiver_.reset();
}

void WorkWait::close() {
    channel_.reset();
    receiver_.reset();
}

bool WorkWait::mayRead() const {
    return receiver_ != nullptr && receiver_->oneAtATime() && !inForkedChild();
}

void WorkWait::wake() const {
    if (receiver_ != nullptr && !inForkedChild())
        receiver_->workers().wake();
}

WorkWait::Reading::Reading(WorkWait& wait) : wait_(wait) {
    std::uint32_t const last = wait.receiver_->lastFrom();
    if (wait.channel_ == nullptr || wait.channel_->token() != last)
        wait.channel_ = wait.receiver_->workers().find(last);
    goesOn_ = wait.channel_ != nullptr && wait.channel_->beginWork();
}

WorkWait::Reading::~Reading() {
    if (goesOn_)
        wait_.channel_->endWork();
}

bool WorkWait::Reading::hasData() const {
    return goesOn_ && wait_.channel_->needsWorker();
}

void WorkWait::Reading::takeIn() {
    goesOn_ = goesOn_ && wait_.takeIn(*wait_.channel_);
}

/** False when the receiving thread goes on, which can wait for memory. */
bool WorkWait::takeIn(Channel& channel) const {
    Receiver::Receiving const receiving(*receiver_);
    bool mine = true;
    bool const enough = OSWrap::withMemory([&] { mine = channel.takeIn(NothingAwaited()); });
    if (!enough)
        channel.handOver();
    return enough && mine;
}

void WorkWait::sleep() {
    manyRung_ = receiver_->workers().wait(WorkerSet::Patience::Endless, rung_);
}

/** What has been told here is told to nobody else, also what rang while the thread was leaving its
 * sleep, so it looks again until it has seen all of that; no longer, since bells may ring for ever.
 */
void WorkWait::takeInRung() {
    WorkerSet& bells = receiver_->workers();
    hearAll();
    std::size_t rounds = bells.size() / kMostRung + 1;
    for (bool more = true; more && rounds > 0; --rounds) {
        manyRung_ = bells.wait(WorkerSet::Patience::None, rung_);
        more = manyRung_ == kMostRung;
        hearAll();
    }
}

void WorkWait::hearAll() {
    for (int i = 0; i < manyRung_; ++i)
        if (rung_[i] != 0)
            hear(rung_[i]);
}

void WorkWait::hear(std::uint32_t token) {
    std::shared_ptr<Channel> channel = receiver_->workers().find(token);
    if (channel == nullptr || !channel->heardByWorker())
        return;
    if (takeIn(*channel))
        channel->endWork();
    channel_ = std::move(channel);
}

}  // namespace Transport
