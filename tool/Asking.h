// Questions to many processes side by side.
#pragma once

#include <reflect.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

/** How a question to a process has ended, with the answer. A value. */
template <class T>
struct Answer {
    enum class State {
        kPending,  // nobody has waited for it to the end
        kAnswered,
        kFailed,  // gone, or it has not what was asked for
        kTimedOut
    };
    State state = State::kPending;
    T value{};

    explicit operator bool() const { return state == State::kAnswered; }
    bool timedOut() const { return state == State::kTimedOut; }
};

/**
 * Puts questions to processes, each on a thread of its own that has the run permission and a
 * deadline: one that hangs costs its own answer, and the time until then once; it is not asked
 * again. The main thread asks, without the run permission.
 *
 * Questions that nobody waits for any more go on to their deadline: what they use must be theirs.
 */
class Asking {
public:
    explicit Asking(std::chrono::nanoseconds patience) : patience_(patience) {}
    ~Asking();
    Asking(Asking const&) = delete;
    Asking& operator=(Asking const&) = delete;

    /** Has the question with each number asked at the broker with that number: what it answers, if
     * it does. Nothing, or an exception: a failure. */
    template <class T>
    using Question = std::function<std::optional<T>(std::size_t number)>;
    /** Returns when all have answered or cannot any more, or when `isEnough` says so of one. */
    template <class T>
    std::vector<Answer<T>> each(std::vector<TreflectOrbId> const& brokers, Question<T> question,
                                std::function<bool(T const&)> isEnough = {});

    /** Says that a broker's process is known not to answer. */
    void giveUp(TreflectOrbId broker);
    bool isGivenUp(TreflectOrbId broker) const;
    /** Asks those again that have been given up; or one of them. */
    void hopeAgain();
    void hopeAgain(TreflectOrbId broker);
    /** Whether threads are still at work that nobody waits for. */
    bool isBusy() const;

private:
    struct Worker {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> isOver;
    };

    /** Runs `ask` on a thread for each number below `count`, some of them one after the other. */
    void start(std::size_t count, std::function<void(std::size_t)> ask);
    /** False when no more threads can be had. */
    bool startWorker(std::function<void()> const& work);
    void joinThoseOver();
    /** Until nothing is pending, it is enough, or nobody has answered for so long that those who
     * are left wait for something that no deadline ends, or until a signal is to end the program.
     * With mutex_. */
    void awaitRound(std::unique_lock<std::mutex>& lock, std::size_t const& pending,
                    bool const& enough);
    /** Runs `act` with permission and deadline; whether there was time left at its end. */
    bool within(std::function<void()> const& act) const;

    std::chrono::nanoseconds const patience_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::set<TreflectOrbId> givenUp_;  // guarded by mutex_
    std::size_t working_ = 0;          // threads; guarded by mutex_
    /** What late answers bring is nobody's, and stays: it may want to tell those who hang of its
     * end. Guarded by mutex_. */
    std::vector<std::shared_ptr<void>> abandoned_;
    std::list<Worker> workers_;  // of the main thread
};

template <class T>
std::vector<Answer<T>> Asking::each(std::vector<TreflectOrbId> const& brokers, Question<T> question,
                                    std::function<bool(T const&)> isEnough) {
    using State = typename Answer<T>::State;
    struct Round {
        std::vector<Answer<T>> answers;  // guarded by mutex_, as the next
        std::size_t pending;
        bool enough = false;
    };
    auto const round = std::make_shared<Round>();
    round->answers.resize(brokers.size());
    round->pending = brokers.size();
    start(brokers.size(), [this, round, brokers, question, isEnough](std::size_t number) {
        Answer<T> answer;
        answer.state = State::kTimedOut;
        if (!isGivenUp(brokers[number])) {
            std::optional<T> told;
            bool const inTime = within([&] { told = question(number); });
            answer.state = told ? State::kAnswered : inTime ? State::kFailed : State::kTimedOut;
            if (told)
                answer.value = std::move(*told);
            if (!inTime)
                giveUp(brokers[number]);
        }
        std::lock_guard<std::mutex> const lock(mutex_);
        if (answer && isEnough && isEnough(answer.value))
            round->enough = true;
        round->answers[number] = std::move(answer);
        --round->pending;
        changed_.notify_all();
    });
    std::unique_lock<std::mutex> lock(mutex_);
    awaitRound(lock, round->pending, round->enough);
    std::vector<Answer<T>> answers = round->answers;
    for (std::size_t i = 0; i < answers.size() && !round->enough; ++i) {
        if (answers[i].state != State::kPending)
            continue;
        answers[i].state = State::kTimedOut;
        givenUp_.insert(brokers[i]);
        abandoned_.push_back(round);
    }
    return answers;
}
