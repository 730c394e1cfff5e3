#include "transport/AnswerWait.h"

#include <pthread.h>

#include "oswrap/OutOfMemory.h"
#include "platform/transport/local/Channel.h"
#include "platform/transport/local/Receiver.h"
#include "platform/transport/local/Switchboard.h"

namespace Transport {

AnswerWait::AnswerWait() = default;

AnswerWait::~AnswerWait() {
    if (channel_ != nullptr)
        channel_->leaveWaiters();
}

int AnswerWait::issue(AddressedMessage& message, TerminationId destination) {
    message.destination(destination);
    return Switchboard::instance().issue(message, destination, channel_);
}

bool AnswerWait::mayRead() const {
    return channel_ != nullptr && channel_->mayBeReadByCaller();
}

void AnswerWait::wake() const {
    channel_->reading().ring();
}

/** Around a sleep at the bell. Whoever hears that one looks for messages and for room. */
class AnswerWait::Reading::Awake {
public:
    explicit Awake(Channel& channel) : channel_(channel) {}
    ~Awake() {
        channel_.reading().reader().wakeUp();
        channel_.goOnSending();
    }
    Awake(Awake const&) = delete;
    Awake& operator=(Awake const&) = delete;

private:
    Channel& channel_;
};

/** The thread can be cancelled for a scope if it could before the reading. */
class AnswerWait::Reading::AsItWas {
public:
    explicit AsItWas(int state) { pthread_setcancelstate(state, nullptr); }
    ~AsItWas() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }
    AsItWas(AsItWas const&) = delete;
    AsItWas& operator=(AsItWas const&) = delete;
};

AnswerWait::Reading::Reading(AnswerWait& wait) {
    if (wait.channel_ == nullptr || Receiver::onSomeReceivingThread() ||
        !wait.channel_->beginReading())
        return;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState_);
    channel_ = wait.channel_.get();
}

AnswerWait::Reading::~Reading() {
    end();
}

void AnswerWait::Reading::end() {
    if (channel_ == nullptr)
        return;
    channel_->endReading();
    channel_ = nullptr;
    pthread_setcancelstate(cancelState_, nullptr);
}

bool AnswerWait::Reading::hasData() const {
    return channel_->needsReader();
}

/** When memory runs out the receiving thread goes on, which can wait for some. */
void AnswerWait::Reading::takeIn(Awaited const& awaited) {
    Receiver::Receiving const receiving(channel_->receiver());
    bool mine = true;
    bool const enough = OSWrap::withMemory([&] { mine = channel_->takeIn(awaited); });
    if (!enough)
        channel_->handOver();
    if (enough && mine)
        return;
    channel_ = nullptr;
    pthread_setcancelstate(cancelState_, nullptr);
}

void AnswerWait::Reading::sleep(long long nanoseconds) {
    if (!channel_->reading().fallAsleep())
        return;
    Awake const awake(*channel_);
    AsItWas const cancellable(cancelState_);
    channel_->reading().sleepAtBell(nanoseconds);
}

}  // namespace Transport
