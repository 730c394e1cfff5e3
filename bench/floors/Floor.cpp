#include <array>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

#include "Subject.h"
#include "floors/Link.h"
#include "floors/Token.h"
#include "floors/Wait.h"

namespace bench {

namespace {

struct Letter {
    FloorMessage head;
    std::vector<unsigned char> body;
};

/**
 * The queue between the receiving thread and the workers. Without a token one worker serves it.
 * With one, workers follow the pool rule: a message that finds nobody idle starts a worker, one
 * that finds an empty queue signals; a worker that leaves work behind signals or starts the next;
 * at most three idle.
 */
class WorkQueue {
public:
    WorkQueue(Waiting waiting, Token* token, std::function<void(Letter&)> serve)
        : waiting_(waiting), token_(token), serve_(std::move(serve)) {}

    ~WorkQueue() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            closed_ = true;
            waitingLetters_ = 1;
            wake_.notify_all();
        }
        std::unique_lock<std::mutex> lock(mutex_);
        while (workers_ > 0)
            wake_.wait(lock);
    }

    void push(Letter&& letter) {
        bool start = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            bool const signal = letters_.empty();
            if (idle_ == 0 && (token_ != nullptr || workers_ == 0)) {
                idle_ = 1;
                start = true;
            }
            letters_.push_back(std::move(letter));
            waitingLetters_.store(letters_.size(), std::memory_order_release);
            if (start)
                ++workers_;
            else if (signal)
                wake_.notify_one();
        }
        if (start)
            startWorker();
    }

private:
    void startWorker() { std::thread(&WorkQueue::work, this).detach(); }

    void work() {
        Letter letter;
        for (bool first = true; take(letter, first); first = false) {
            if (token_ != nullptr)
                token_->take();
            serve_(letter);
            if (token_ != nullptr)
                token_->give();
        }
        std::lock_guard<std::mutex> lock(mutex_);
        --workers_;
        wake_.notify_all();
    }

    bool take(Letter& letter, bool first) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!first && ++idle_ >= 4) {
            --idle_;
            return false;
        }
        if (letters_.empty()) {
            lock.unlock();
            pollBriefly(waiting_, [this] { return waitingLetters_.load() != 0; });
            lock.lock();
        }
        while (letters_.empty() && !closed_)
            wake_.wait(lock);
        --idle_;
        if (letters_.empty())
            return false;
        letter = std::move(letters_.front());
        letters_.pop_front();
        waitingLetters_.store(letters_.size(), std::memory_order_release);
        if (token_ == nullptr || letters_.empty())
            return true;
        passOn(lock);
        return true;
    }

    void passOn(std::unique_lock<std::mutex>& lock) {
        if (idle_ > 0) {
            wake_.notify_one();
            return;
        }
        ++idle_;
        ++workers_;
        lock.unlock();
        startWorker();
    }

    Waiting const waiting_;
    Token* const token_;
    std::function<void(Letter&)> const serve_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Letter> letters_;                  // guarded by mutex_
    std::atomic<std::size_t> waitingLetters_{0};  // its size, for those who poll
    int idle_ = 0;                                // guarded by mutex_
    int workers_ = 0;                             // guarded by mutex_
    bool closed_ = false;                         // guarded by mutex_
};

/** Receives requests, hands them to the workers, answers. */
class FloorServer {
public:
    FloorServer(std::unique_ptr<Link> link, Waiting waiting, Token* token)
        : link_(std::move(link)), queue_(waiting, token, [this](Letter& l) { serve(l); }) {}

    void run() {
        Letter letter;
        while (link_->receive(letter.head, letter.body) && letter.head.kind != FloorMessage::kStop)
            queue_.push(std::move(letter));
    }

private:
    void serve(Letter& letter) {
        if (letter.head.kind == FloorMessage::kOneWay) {
            served_.fetch_add(1);
            return;
        }
        letter.head.number =
            letter.head.kind == FloorMessage::kCount ? served_.load() : letter.head.number + 1;
        letter.head.kind = FloorMessage::kAnswer;
        link_->send(letter.head, letter.body.data());
    }

    std::unique_ptr<Link> link_;
    std::atomic<std::uint32_t> served_{0};
    WorkQueue queue_;  // last: its workers use the rest
};

/** One calling thread's place to wait in. */
struct CallRecord {
    std::mutex mutex;
    std::condition_variable wake;
    std::atomic<bool> done{false};  // written under mutex
    Letter answer;                  // guarded by mutex until done
};

class FloorClient : public Client {
public:
    FloorClient(std::unique_ptr<Link> link, Waiting waiting, std::unique_ptr<Token> token)
        : link_(std::move(link)),
          waiting_(waiting),
          token_(std::move(token)),
          receiver_([this] { receive(); }) {}

    ~FloorClient() override {
        FloorMessage stop;
        stop.kind = FloorMessage::kStop;
        link_->send(stop, nullptr);
        link_->close();
        receiver_.join();
    }

    void enterThread() override {
        index_ = nextIndex_.fetch_add(1) % kMostCallers;
        if (token_)
            token_->take();
    }
    void leaveThread() override {
        if (token_)
            token_->give();
    }

    bool call() override { return exchange(FloorMessage::kRequest, 0).head.number == 8; }

    bool callBody(std::size_t bytes) override {
        return exchange(FloorMessage::kRequest, bytes).body.size() == bytes;
    }

    bool sendOneWay() override {
        FloorMessage message;
        message.kind = FloorMessage::kOneWay;
        if (token_)
            token_->give();
        link_->send(message, nullptr);
        if (token_)
            token_->take();
        return true;
    }

    std::uint32_t servedOneWays() override { return exchange(FloorMessage::kCount, 0).head.number; }

private:
    static constexpr std::size_t kMostCallers = 256;

    Letter& exchange(FloorMessage::Kind kind, std::size_t bodySize) {
        CallRecord& record = records_[index_];
        record.done = false;
        FloorMessage message = FloorMessage::of(kind, index_, bodySize);
        if (body_.size() < bodySize)
            body_.resize(bodySize);
        if (token_)
            token_->give();
        link_->send(message, body_.data());
        pollBriefly(waiting_, [&] { return record.done.load(std::memory_order_acquire); });
        {
            std::unique_lock<std::mutex> lock(record.mutex);
            while (!record.done)
                record.wake.wait(lock);
        }
        if (token_)
            token_->take();
        return record.answer;
    }

    void receive() {
        Letter letter;
        while (link_->receive(letter.head, letter.body)) {
            CallRecord& record = records_[letter.head.caller % kMostCallers];
            std::lock_guard<std::mutex> lock(record.mutex);
            std::swap(record.answer, letter);
            record.done.store(true, std::memory_order_release);
            record.wake.notify_one();
        }
    }

    static thread_local std::uint32_t index_;
    static thread_local std::vector<unsigned char> body_;

    std::unique_ptr<Link> const link_;
    Waiting const waiting_;
    std::unique_ptr<Token> const token_;  // null: no permission to hand round
    std::atomic<std::uint32_t> nextIndex_{0};
    std::array<CallRecord, kMostCallers> records_;
    std::thread receiver_;
};

thread_local std::uint32_t FloorClient::index_ = 0;
thread_local std::vector<unsigned char> FloorClient::body_;

class Floor : public Subject {
public:
    using MakeLink = std::unique_ptr<Link> (*)(std::string const&);

    Floor(MakeLink makeServer, MakeLink makeClient, Waiting waiting, bool withToken)
        : makeServer_(makeServer),
          makeClient_(makeClient),
          waiting_(waiting),
          withToken_(withToken) {}

    void serve(std::string const& folder) override {
        Token token;
        FloorServer server(makeServer_(folder), waiting_, withToken_ ? &token : nullptr);
        server.run();
    }

    std::unique_ptr<Client> connect(std::string const& folder) override {
        return std::make_unique<FloorClient>(makeClient_(folder), waiting_,
                                             withToken_ ? std::make_unique<Token>() : nullptr);
    }

private:
    MakeLink const makeServer_;
    MakeLink const makeClient_;
    Waiting const waiting_;
    bool const withToken_;
};

}  // namespace

std::unique_ptr<Subject> makeSleepingFloor() {
    return std::make_unique<Floor>(acceptSocketLink, connectSocketLink, Waiting::kSleep, false);
}

std::unique_ptr<Subject> makePollingFloor() {
    return std::make_unique<Floor>(acceptRingLink, connectRingLink, Waiting::kPoll, false);
}

std::unique_ptr<Subject> makePermissionFloor() {
    return std::make_unique<Floor>(acceptRingLink, connectRingLink, Waiting::kPoll, true);
}

}  // namespace bench
