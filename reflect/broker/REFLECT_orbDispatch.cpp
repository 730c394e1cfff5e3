// What workers do: they take the messages that have been queued, one after the other, and serve
// them under the run permission.
#include <optional>

#include "handler_threads/PermissionWaiter.h"
#include "handler_threads/TurnExchange.h"
#include "handler_threads/WithPermission.h"
#include "logging/LineLimit.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/OutOfMemory.h"
#include "reflect/broker/CallbackScope.h"
#include "reflect/broker/IncomingMessage.h"
#include "reflect/broker/TreflectOrbParts.h"

namespace {

/** The message that a worker serves next, once it holds the run permission, and the worker's entry
 * for the permission's queue. Lives on the worker's thread. */
class WorkerTurn final : public TurnExchange, public MessageQueue::Taker {
public:
    explicit WorkerTurn(void const* pool) : TurnExchange(pool) { entry_.emplace(this); }
    void swap(TurnExchange& other) override {
        std::swap(taken, static_cast<WorkerTurn&>(other).taken);
    }
    bool lineUp() override {
        mine_ = TreflectORB::handlerThreads().enterQueue(*entry_);
        return mine_;
    }
    /** Whether lining up has given the worker the permission, or left it with it. */
    bool mine() const { return mine_; }
    /** Waits for the permission unless it is. */
    void await() {
        if (mine_)
            return;
        TreflectORB::handlerThreads().getPermission(*entry_);
        entry_.emplace(this);
    }

private:
    std::optional<handlerthreads::PermissionWaiter> entry_;  // serves for one wait
    bool mine_ = false;
};

/** Tells the queue at the end of a worker, by return or by cancellation. */
class EndOfWorker {
public:
    explicit EndOfWorker(MessageQueue& queue) : queue_(queue) {}
    ~EndOfWorker() { queue_.workerEnded(); }
    EndOfWorker(EndOfWorker const&) = delete;
    EndOfWorker& operator=(EndOfWorker const&) = delete;

private:
    MessageQueue& queue_;
};

}  // namespace

/** A worker's way from message to message. */
class TreflectORB::WorkLoop {
public:
    explicit WorkLoop(TreflectORB& orb) : orb_(orb), turn_(orb.parts_.get()) {}
    ~WorkLoop() { orb_.parts_->messageQueue.end(turn_.taken); }  // of one that is cancelled
    WorkLoop(WorkLoop const&) = delete;
    WorkLoop& operator=(WorkLoop const&) = delete;

    void run() OSW_REQUIRES_PERMISSION {
        for (bool found = awaitTurn(true); found; found = goOnAtOnce() || awaitTurn(false)) {
            serve();
            turn_.taken.message = {};
        }
    }

private:
    void serve() OSW_REQUIRES_PERMISSION;
    void refuse(TreflectMessage const& message, unsigned int note) OSW_REQUIRES_PERMISSION;
    bool awaitTurn(bool firstPass);
    bool goOnAtOnce();
    /** Others may wait behind this worker for the permission by now, so it is not for it to wait:
     * whoever takes or queues the next message tries again. */
    void startWorker(MessageQueue::Need need) {
        if (need == MessageQueue::Need::Worker)
            orb_.startCountedWorker_(Patience::None);
    }

    TreflectORB& orb_;
    WorkerTurn turn_;
};

/** A message for which memory does not suffice is answered with a failure. */
void TreflectORB::WorkLoop::serve() {
    orb_.goOn_(orb_.parts_->messageQueue.begin(turn_.taken));
    TreflectMessage const message(turn_.taken.message);
    unsigned int const note = turn_.taken.note;
    if (turn_.taken.isTooMuch) {
        refuse(message, note);
        return;
    }
    bool const served = OSWrap::withMemory([&] {
        handlerthreads::assertPermission();
        IncomingMessage(orb_, message, note).serve();
    });
    if (served)
        return;
    giveBackLevelsBeyond(1);
    REFLECTORB_LOG_LIMITED(orb_.parts_->limits.noMemory, 2, "REFLECT_orb",
                           "ORB 0x%08X has no memory to serve 0x%08X", orb_.termId().value(),
                           message.originator().value());
    IncomingMessage(orb_, message, note).makeUpFor();
}

/** Those of its sender that are being served may all wait for the sender itself: one more would
 * keep one more thread. */
void TreflectORB::WorkLoop::refuse(TreflectMessage const& message, unsigned int note) {
    REFLECTORB_LOG_LIMITED(orb_.parts_->limits.tooMuchServed, 3, "REFLECT_orb",
                           "ORB 0x%08X does not serve 0x%08X: too many of its messages are being "
                           "served",
                           orb_.termId().value(), message.originator().value());
    IncomingMessage(orb_, message, note).makeUpFor();
}

/** Gives up the run permission until there is a message; false when the worker is to end. */
bool TreflectORB::WorkLoop::awaitTurn(bool firstPass) {
    releaseRunPermission();
    MessageQueue::Need need = MessageQueue::Need::Nothing;
    if (orb_.parts_->messageQueue.next(firstPass, turn_, need) == MessageQueue::Turn::End)
        return false;
    startWorker(need);
    turn_.await();
    return true;
}

/** Serves on without a change of threads while messages wait and only workers are queued for the
 * permission. */
bool TreflectORB::WorkLoop::goOnAtOnce() {
    MessageQueue::Need need = MessageQueue::Need::Nothing;
    if (!orb_.parts_->messageQueue.nextAtOnce(turn_, need))
        return false;
    if (!turn_.mine())
        releaseRunPermission();
    startWorker(need);
    turn_.await();
    return true;
}

void TreflectORB::dispatchEntry() {
    OSWrap::DisableCancelStateGuard const noCancel;
    EndOfWorker const end(parts_->messageQueue);
    WithPermission const permission;
    WorkLoop(*this).run();
}
