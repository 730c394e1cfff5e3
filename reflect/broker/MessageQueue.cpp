#include "reflect/broker/MessageQueue.h"

#include <new>
#include <utility>

#include "oswrap/Lock.h"
#include "reflect/broker/ReceivingScope.h"
#include "transport/TransportLayer.h"

using QueueLock = OSWrap::Lock<OSWrap::ConditionVar>;

bool MessageQueue::Ring::reserve() {
    try {
        if (size_ == cells_.size())
            grow();
    } catch (std::bad_alloc const&) {
        return false;
    }
    return true;
}

void MessageQueue::Ring::push(Transport::AddressedMessage const& message, Backlog::Share* share,
                              unsigned int note) {
    Taken& cell = cells_[(first_ + size_) & (cells_.size() - 1)];
    cell.message = message;
    cell.share = share;
    cell.note = note;
    cell.waits = true;
    cell.letsGo = false;
    cell.isTooMuch = false;
    ++size_;
}

MessageQueue::Taken MessageQueue::Ring::pop() {
    Taken taken = std::move(cells_[first_]);
    first_ = (first_ + 1) & (cells_.size() - 1);
    --size_;
    return taken;
}

void MessageQueue::Ring::grow() {
    constexpr std::size_t kLeast = 64;
    std::vector<Taken> larger(cells_.empty() ? kLeast : 2 * cells_.size());
    for (std::size_t i = 0; i < size_; ++i)
        larger[i] = std::move(cells_[(first_ + i) & (cells_.size() - 1)]);
    cells_.swap(larger);
    first_ = 0;
}

/** Without memory for it, it is not known. */
int MessageQueue::ownerOf(Transport::TerminationId sender) {
    try {
        return Transport::TransportLayer::instance().ownerOf(sender).process;
    } catch (std::bad_alloc const&) {
        return 0;
    }
}

/** Null when it is too much, or the queue has been closed meanwhile: the process of a new sender is
 * asked for without the mutex. */
Backlog::Share* MessageQueue::admit(Transport::AddressedMessage const& message,
                                    Backlog::Bounds bounds) {
    Transport::TerminationId const sender = message.originator();
    int process = 0;
    if (!backlog_.knows(sender)) {
        changed_.unlock();
        process = processOf_(sender);
        changed_.lock();
    }
    return !closed_ && messages_.reserve() ? backlog_.admit(sender, process, message.size(), bounds)
                                           : nullptr;
}

MessageQueue::Pushed MessageQueue::push(Transport::AddressedMessage const& message,
                                        unsigned int note, Backlog::Bounds bounds) {
    Pushed pushed;
    Wake whom = Wake::Nobody;
    {
        QueueLock const lock(changed_);
        if (closed_)
            return pushed;
        Backlog::Share* const share = admit(message, bounds);
        if (!share) {
            if (!closed_)
                pushed = {Fate::TooMuch, Need::Nothing, true};
            return pushed;
        }
        pushed.isMuch = backlog_.isMuch(*share);
        bool const wasEmpty = messages_.empty();
        messages_.push(message, share, note);
        ready_.store(true, std::memory_order_release);
        if (idle_ == 0) {
            pushed.need = addWorker();
            return pushed;
        }
        if (wasEmpty)
            whom = wakesOne();
    }
    wake(whom);
    return pushed;
}

/** One who sleeps for work alone is woken first: the reader stays at the bells. */
MessageQueue::Wake MessageQueue::wakesOne() {
    if (polling_ > 0 || reader_.load() == Reader::Awake)
        return Wake::Nobody;
    if (sleepers_ > 0)
        return Wake::Sleeper;
    Reader seen = Reader::Asleep;
    return reader_.compare_exchange_strong(seen, Reader::Awake) ? Wake::Reader : Wake::Nobody;
}

void MessageQueue::wake(Wake whom) {
    if (whom == Wake::Sleeper)
        changed_.signal();
    else if (whom == Wake::Reader)
        work_.load()->wake();
}

Transport::TerminationId MessageQueue::begin(Taken& taken) {
    if (taken.waits) {
        QueueLock const lock(changed_);
        release(taken);
    }
    return taken.letsGo ? taken.message.originator() : Transport::TerminationId();
}

void MessageQueue::release(Taken& taken) {
    taken.waits = false;
    taken.letsGo = backlog_.release(*taken.share, taken.message.size());
    if (taken.letsGo)
        holdsBack_.store(backlog_.holdsBack());
    taken.isTooMuch = !backlog_.beginServing(*taken.share);
    if (taken.isTooMuch)
        taken.share = nullptr;
}

void MessageQueue::end(Taken& taken) {
    QueueLock const lock(changed_);
    endServing(taken);
}

void MessageQueue::endServing(Taken& taken) {
    if (taken.share && !taken.waits)
        backlog_.endServing(*std::exchange(taken.share, nullptr));
}

bool MessageQueue::holdBack(Transport::TerminationId sender) {
    QueueLock const lock(changed_);
    bool const held = !closed_ && backlog_.holdBack(sender);
    holdsBack_.store(backlog_.holdsBack());
    return held;
}

Backlog::Mark MessageQueue::letGo(Transport::TerminationId sender, Backlog::When when) {
    QueueLock const lock(changed_);
    Backlog::Mark const mark = backlog_.letGo(sender, when);
    holdsBack_.store(backlog_.holdsBack());
    return mark;
}

MessageQueue::Turn MessageQueue::next(bool firstPass, Taker& taker, Need& need) {
    Wake whom = Wake::Nobody;
    {
        QueueLock const lock(changed_);
        need = Need::Nothing;
        endServing(taker.taken);
        if (!firstPass)
            ++idle_;
        bool const tooMany = idle_ > kMostIdle;
        if (!tooMany)
            awaitMessage();
        --idle_;
        if (tooMany || closed_)
            return Turn::End;
        whom = takeFront(taker, need);
    }
    wake(whom);
    return Turn::Serve;
}

bool MessageQueue::nextAtOnce(Taker& taker, Need& need) {
    if (!ready_.load(std::memory_order_acquire))
        return false;
    Wake whom = Wake::Nobody;
    {
        QueueLock const lock(changed_);
        need = Need::Nothing;
        endServing(taker.taken);
        if (closed_ || messages_.empty() || idle_ >= kMostIdle)
            return false;
        whom = takeFront(taker, need);
    }
    wake(whom);
    return true;
}

/** The taker sees to those who are left behind: `need` tells whether they take one more worker, the
 * result which idle one to wake. */
MessageQueue::Wake MessageQueue::takeFront(Taker& taker, Need& need) {
    taker.taken = messages_.pop();
    if (taker.lineUp())
        release(taker.taken);
    ready_.store(!messages_.empty(), std::memory_order_relaxed);
    if (messages_.empty())
        return Wake::Nobody;
    if (idle_ == 0) {
        need = addWorker();
        return Wake::Nobody;
    }
    return wakesOne();
}

void MessageQueue::awaitMessage() {
    if (mayGoOn())
        return;
    Transport::WorkWait* const work = work_.load();
    if (work && reader_.load() == Reader::None && work->mayRead())
        read(*work);
    else
        pollOnce();
    if (mayGoOn())
        return;
    OSWrap::AdaptiveWait::Sleep const sleep(waiting_);
    ++sleepers_;
    while (!mayGoOn())
        changed_.wait(OSWrap::TimeSpec::INFINITETIME);
    --sleepers_;
}

bool MessageQueue::mayGoOn() {
    return closed_ || !messages_.empty();
}

void MessageQueue::pollOnce() {
    ++polling_;
    changed_.unlock();
    waiting_.poll([this] { return ready_.load(std::memory_order_acquire); });
    changed_.lock();
    --polling_;
}

/** Until there is a message, or messages come otherwise than one at a time. */
void MessageQueue::read(Transport::WorkWait& work) {
    reader_.store(Reader::Awake);
    while (!mayGoOn() && work.mayRead()) {
        changed_.unlock();
        bool const found = pollRing(work);
        changed_.lock();
        if (!found && !mayGoOn())
            sleepAtBells(work);
    }
    reader_.store(Reader::None);
}

/** Whether there was something, in the ring of who has sent last or in the queue. */
bool MessageQueue::pollRing(Transport::WorkWait& work) {
    Transport::WorkWait::Reading reading(work);
    auto const ready = [&] { return ready_.load(std::memory_order_acquire) || reading.hasData(); };
    if (!waiting_.poll(ready))
        return false;
    ReceivingScope const receiving;
    reading.takeIn();
    return true;
}

void MessageQueue::sleepAtBells(Transport::WorkWait& work) {
    reader_.store(Reader::Asleep);
    changed_.unlock();
    {
        OSWrap::AdaptiveWait::Sleep const sleep(waiting_);
        work.sleep();
    }
    reader_.store(Reader::Awake);
    {
        ReceivingScope const receiving;
        work.takeInRung();
    }
    changed_.lock();
}

MessageQueue::Need MessageQueue::addWorker() {
    ++idle_;
    ++workers_;
    return Need::Worker;
}

bool MessageQueue::admitWorker() {
    QueueLock const lock(changed_);
    if (closed_)
        return false;
    addWorker();
    return true;
}

void MessageQueue::workerNotStarted() {
    QueueLock const lock(changed_);
    --idle_;
    --workers_;
    changed_.broadcast();
}

void MessageQueue::workerEnded() {
    QueueLock const lock(changed_);
    --workers_;
    if (closed_)
        changed_.broadcast();
}

void MessageQueue::close() {
    Ring dropped;  // is freed after unlocking
    QueueLock const lock(changed_);
    closed_ = true;
    std::swap(dropped, messages_);
    ready_.store(true, std::memory_order_release);
    changed_.broadcast();
    if (reader_.load() == Reader::Asleep)
        work_.load()->wake();
}

void MessageQueue::waitForWorkers(unsigned int remaining) {
    QueueLock const lock(changed_);
    while (workers_ > remaining)
        changed_.wait(OSWrap::TimeSpec::INFINITETIME);
}
