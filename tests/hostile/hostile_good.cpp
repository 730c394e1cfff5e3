// A process that behaves well. Arguments: NAME [make] [PARTNER...]. Serves an object of its name,
// calls those of its partners, observes things and brokers, and with "make" makes things. Obeys
// lines on standard input:
//
//   go        act
//   rest      stop acting; "resting" when all threads do
//   report    "report KEY=VALUE...", see Report
//
// and the end of input: ends. Tells by itself "met ID" and "lost ID" of brokers, and "fault TEXT".
#include <algorithm>
#include <memory>
#include <random>
#include <set>

#include "ActorSide.h"
#include "GoodObject.h"
#include "Permitted.h"
#include "Turn.h"
#include "logging/Log.h"

namespace {

using namespace hostile;
using testsupport::answer;
using testsupport::now;

/** What a process has done and was told, by name. Any thread. */
class Report {
public:
    void add(std::string const& key, long value = 1) {
        std::lock_guard<std::mutex> const lock(mutex_);
        values_[key] += value;
    }
    void fault(std::string const& text) {
        add("faults");
        answer("fault ", text);
    }
    /** `times`: how long calls took, in microseconds. */
    void tell(std::vector<long long> times) {
        std::sort(times.begin(), times.end());
        if (times.empty())
            times.push_back(0);
        std::ostringstream line;
        std::lock_guard<std::mutex> const lock(mutex_);
        for (auto const& [key, value] : values_)
            line << ' ' << key << '=' << value;
        answer("report worst=", times.back(), " usual=", times[(times.size() - 1) * 9 / 10],
               line.str());
    }

private:
    std::mutex mutex_;
    std::map<std::string, long> values_;  // guarded by mutex_
};

/** How long the calls of one thread took, the one under way included. Any thread. */
class Stopwatch {
public:
    void start() {
        std::lock_guard<std::mutex> const lock(mutex_);
        begin_ = now();
    }
    /** Answers how long it took. */
    long long stop() {
        std::lock_guard<std::mutex> const lock(mutex_);
        long long const time = now() - std::exchange(begin_, 0);
        times_.push_back(time);
        return time;
    }
    /** Adds those since this was asked last, in microseconds. */
    void moveTo(std::vector<long long>& times) {
        std::lock_guard<std::mutex> const lock(mutex_);
        if (begin_ != 0)
            times_.push_back(now() - begin_);
        times.insert(times.end(), times_.begin(), times_.end());
        times_.clear();
    }

private:
    std::mutex mutex_;
    long long begin_ = 0;           // guarded by mutex_; 0: no call is under way
    std::vector<long long> times_;  // guarded by mutex_
};

/** Microseconds from which on a call is told of. */
constexpr long long kSlowCall = 80'000;

/** Calls one partner again and again. */
class Caller {
public:
    Caller(std::string name, std::string partner, testsupport::Turn& turn, Report& report)
        : name_(std::move(name)), partner_(std::move(partner)), turn_(turn), report_(report) {}

    void moveTimesTo(std::vector<long long>& times) { watch_.moveTo(times); }
    /** The body of the thread. */
    void run() {
        std::unique_ptr<Client> client;
        turn_.follow([&] {
            TreflectHandlerState const inside(true);
            if (!client)
                client = std::make_unique<Client>(TipprmiOID(partner_, NSID_UNIT));
            call(*client);
            return std::chrono::milliseconds(2);
        });
        TreflectHandlerState const inside(true);
        client.reset();
    }

private:
    /** The first ones are small; now and then one is larger than the largest ring. */
    std::string text() {
        ++calls_;
        std::size_t const size = calls_ % 256 == 0 ? 1'200'000 : random_() % 3000;
        return std::string(size, static_cast<char>('a' + calls_ % 26));
    }
    void call(Client const& client) {
        std::string const sent = text();
        watch_.start();
        auto const result = client.echo(sent);
        tell(watch_.stop(), sent.size());
        report_.add("calls");
        if (!result)
            report_.fault("a call of " + partner_ + " failed with " +
                          std::to_string(result.code()));
        else if (result.value() != sent)
            report_.fault("a call of " + partner_ + " was answered wrongly");
        if (calls_ % 4 != 0)
            return;
        watch_.start();
        bool const sentNote = static_cast<bool>(client.note(name_));
        tell(watch_.stop(), 0);
        if (sentNote)
            report_.add("sent." + partner_);
        else
            report_.fault("a one-way call of " + partner_ + " failed");
    }

    /** In the log, beside what caused it. */
    void tell(long long time, std::size_t bytes) const {
        if (time >= kSlowCall)
            REFLECTORB_LOG(4, "hostile", "a call of %s with %zu bytes took %lld ms",
                           partner_.c_str(), bytes, time / 1000);
    }

    std::string const name_;
    std::string const partner_;
    testsupport::Turn& turn_;
    Report& report_;
    Stopwatch watch_;
    std::mt19937 random_{1};
    unsigned long calls_ = 0;
};

/** The broker behind which it is. */
std::string homeOf(TipprmiObjectClient const& handle) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", handle.getStub_()->orbId().value());
    return text;
}

/**
 * Counts the things that it is told of, and whether each comes once, and in order from the end of
 * the registration on. What it was told of meanwhile, and the end of what its process had heard of
 * by then, may have come by two ways that overtake each other.
 */
class Watcher final : public TreflectObserver {
public:
    Watcher(Report& report, char const* what)
        : TreflectObserver(TipprmiOID("", NSID_UNIT), nullptr, "watcher"),
          report_(report),
          what_(what) {}

    /** The registration is over; `last` is the last thing that the process has heard of, or 0. */
    void registered(unsigned long last) {
        registered_ = true;
        lastBefore_ = last;
        last_ = last;
    }
    /** The latest thing that it was told of, or 0. */
    unsigned long latest() const {
        return early_.empty() ? last_ : std::max(last_, *early_.rbegin());
    }

    bool update() override {
        std::string const name = nameOf(*getSource());
        unsigned long const number = name.size() > 6 ? std::stoul(name.substr(6)) : 0;
        if (!registered_ || number <= lastBefore_) {
            if (!early_.insert(number).second)
                report_.fault(std::string(what_) + ": " + name + " was told twice");
        } else {
            if (last_ != 0 && number != last_ + 1)
                report_.fault(std::string(what_) + ": " + name + " of " + homeOf(*getSource()) +
                              " was told after number " + std::to_string(last_));
            last_ = number;
        }
        report_.add(what_);
        return true;
    }

private:
    Report& report_;
    char const* const what_;
    bool registered_ = false;
    unsigned long lastBefore_ = 0;
    unsigned long last_ = 0;
    std::set<unsigned long> early_;
};

class BrokerWatcher final : public TreflectOrbObserverIf {
public:
    void notify(Transport::TerminationId const& broker, Appear_t const& what) override {
        answer(what == kAppear ? "met " : "lost ", broker.value());
    }
};

class Process {
public:
    Process(std::string const& name, std::vector<std::string> const& partners, bool makes)
        : makes_(makes) {
        TreflectORB& orb = *TreflectORB::getInstance(NSID_UNIT);
        orb.registerOrbCreation(&brokers_, true);
        orb.registerOrbDeletion(&brokers_);
        TreflectHandlerState const inside(true);
        object_ = std::make_unique<Object>(name, [this](std::string const& who) {
            if (who.rfind("good-", 0) == 0 && who.size() < 20)
                report_.add("got." + who);
        });
        TreflectMetaObject& things = *InterfaceRepository::instance()->findInterface(kThing);
        things.observeCreations(&comers_, false);
        comers_.registered(comers_.latest());
        things.observeDeletions(&goers_);
        goers_.registered(comers_.latest());
        for (std::string const& partner : partners)
            callers_.push_back(std::make_unique<Caller>(name, partner, turn_, report_));
        answer("start ", orb.termId().value());
    }
    ~Process() {
        turn_.end();
        for (std::thread& thread : threads_)
            thread.join();
        TreflectORB::getInstance(NSID_UNIT)->unregisterOrbNotifications(&brokers_);
        TreflectHandlerState const inside(true);
        TreflectMetaObject& things = *InterfaceRepository::instance()->findInterface(kThing);
        things.removeObserver(&comers_);
        things.removeObserver(&goers_);
        object_.reset();
    }
    Process(Process const&) = delete;
    Process& operator=(Process const&) = delete;

    void run() {
        for (auto const& caller : callers_)
            threads_.emplace_back([&caller] { caller->run(); });
        if (makes_)
            threads_.emplace_back([this] { makeThings(); });
        testsupport::obeyLines({{"go", [this] { turn_.go(); }},
                                {"rest",
                                 [this] {
                                     turn_.rest();
                                     answer("resting");
                                 }},
                                {"report", [this] { report_.tell(takeTimes()); }}});
    }

private:
    std::vector<long long> takeTimes() {
        std::vector<long long> all;
        for (auto const& caller : callers_)
            caller->moveTimesTo(all);
        return all;
    }
    /** The body of a thread. */
    void makeThings() {
        turn_.follow([this] {
            TreflectHandlerState const inside(true);
            auto const thing = std::make_unique<Thing>(++made_);
            report_.add("made");
            return std::chrono::milliseconds(10);
        });
    }

    bool const makes_;
    unsigned long made_ = 0;
    testsupport::Turn turn_;
    Report report_;
    BrokerWatcher brokers_;
    Watcher comers_{report_, "comers"};
    Watcher goers_{report_, "goers"};
    std::unique_ptr<Object> object_;
    std::vector<std::unique_ptr<Caller>> callers_;
    std::vector<std::thread> threads_;
};

}  // namespace

int main(int count, char** arguments) {
    if (count < 2)
        return EXIT_FAILURE;
    bool const makes = count > 2 && std::string(arguments[2]) == "make";
    Process(arguments[1], {arguments + (makes ? 3 : 2), arguments + count}, makes).run();
    return EXIT_SUCCESS;
}
