#include "web/Hub.h"

#include <fmt/format.h>
#include <handler_threads.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <system_error>
#include <thread>

#include "Facts.h"
#include "Failure.h"
#include "Following.h"
#include "Reaper.h"
#include "Units.h"
#include "Waiting.h"
#include "Wildcard.h"
#include "web/Inbox.h"
#include "web/Watches.h"

namespace {

using Clock = std::chrono::steady_clock;
using Piece = Board::Kind;

constexpr unsigned int kObserverClass = 0x641E8FCD;  // of all observers, see the wire format

/** Observers, and what processes tell of themselves by: of no use to who looks at objects. */
bool isOfTheSystem(Node const& node) {
    bool const isProcess = !node.isReflective && node.identifier.rfind("process/", 0) == 0;
    return isProcess || node.classId == kObserverClass || node.classId == processobject::kClass;
}

/** The other way round; the id is one that has been told. */
Place placeOfId(std::string const& id) {
    constexpr int kHexadecimal = 16;
    std::size_t const colon = id.find(':');
    return {static_cast<unsigned int>(std::stoul(id.substr(0, colon), nullptr, kHexadecimal)),
            static_cast<unsigned int>(std::stoul(id.substr(colon + 1), nullptr, kHexadecimal))};
}

std::string textOf(Json const& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/** Names of objects, by patterns. A value. */
class Patterns {
public:
    explicit Patterns(std::vector<std::string> const& patterns)
        : isAll_(std::find(patterns.begin(), patterns.end(), "**") != patterns.end()),
          patterns_(patterns.begin(), patterns.end()) {}

    bool matches(std::string const& name) const {
        return isAll_ || std::any_of(patterns_.begin(), patterns_.end(),
                                     [&](Wildcard const& one) { return one.matches(name); });
    }
    bool empty() const { return patterns_.empty(); }

private:
    bool isAll_;
    std::vector<Wildcard> patterns_;
};

/** What a listener wants. A value. */
struct Wishes {
    Patterns values;
    Patterns calls;
    bool processes;
};

/** Waits for processes that have not answered in time until they do, each on a thread of its own.
 * To the end of the process. */
class Vigil {
public:
    Vigil() = default;
    ~Vigil() = delete;
    Vigil(Vigil const&) = delete;
    Vigil& operator=(Vigil const&) = delete;

    /** Begins, unless it waits for this one already; whether it has begun. */
    bool await(TreflectOrbId broker) {
        constexpr std::size_t kMost = 64;
        std::lock_guard<std::mutex> const lock(mutex_);
        if (awaited_.size() >= kMost || !awaited_.insert(broker).second)
            return false;
        try {
            std::thread([this, broker] { wait(broker); }).detach();
        } catch (std::system_error const&) {
            awaited_.erase(broker);  // later, when there are threads again
            return false;
        }
        return true;
    }
    /** Those that have answered, or have gone. */
    std::vector<TreflectOrbId> take() {
        std::lock_guard<std::mutex> const lock(mutex_);
        return std::exchange(over_, {});
    }

private:
    /** The body of a thread. One question at a time is underway, so that few wait over there; it
     * has a deadline, since without one it would be given up as lost. */
    void wait(TreflectOrbId broker) {
        constexpr std::chrono::seconds kMost(30);
        for (bool isOver = false; !isOver;) {
            TreflectHandlerState const inside(true);
            TreflectDeadline const deadline(kMost);
            TreflectProcessClient::of(broker);
            isOver = deadline.left().count() > 0;
        }
        std::lock_guard<std::mutex> const lock(mutex_);
        awaited_.erase(broker);
        over_.push_back(broker);
    }

    std::mutex mutex_;                 // a leaf
    std::set<TreflectOrbId> awaited_;  // guarded by mutex_, as the next
    std::vector<TreflectOrbId> over_;
};

/** When a process that was too slow is asked again. A value. */
struct Hope {
    Clock::time_point at = Clock::time_point::max();
    Clock::time_point last = {};
    int times = 0;

    /** It has answered: at once, unless that has been in vain again and again. */
    void begin() {
        constexpr std::chrono::minutes kForgiven(1);
        constexpr int kMostTimes = 5;
        auto const now = Clock::now();
        times = now - last > kForgiven ? 0 : std::min(times + 1, kMostTimes);
        last = now;
        at = times == 0 ? now : now + std::chrono::seconds(1) * (1 << (times - 1));
    }
    bool isPending() const { return at != Clock::time_point::max(); }
};

/** What is watched of an object, or is to be. */
template <class T>
struct Watch {
    bool isDone = false;  // nothing is left to be begun
    int failures = 0;     // without those that were a want of answers
    std::shared_ptr<T const> watching = {};
    std::string missing = {};  // why not all of it is watched; empty: nothing is missing, or wanted

    bool isBegun() const { return isDone || watching; }
};

/** What is told of it so far is over. */
template <class T>
void stop(Watch<T> const& watch) {
    if (watch.watching)
        watch.watching->stop();
}

/** What has come of watching an object. A value. */
template <class T>
struct Attempt {
    std::shared_ptr<T const> watching = {};
    std::string missing = {};  // why not all of it is watched; empty: nothing is missing
};

/** Watches an object, of which something may have been watched earlier; may throw. Under the run
 * permission. */
template <class T>
using WatchOne = std::function<std::shared_ptr<T const>(Found const& found, T const* earlier)>;

template <class T>
Attempt<T> tryOnce(WatchOne<T> const& watch, Found const& found, T const* earlier) {
    try {
        auto const watching = watch(found, earlier);
        return {watching, watching->missing()};
    } catch (std::exception const& why) {
        return {{}, why.what()};  // its class is unknown, it has gone, or memory lacks
    }
}

template <class T>
using Attempts = std::map<Place, Attempt<T>>;

/** What has come of watching objects, until it is taken. Any thread. */
template <class T>
class Harvest {
public:
    /** False when it has been taken already: nobody will have this. */
    bool add(Place place, Attempt<T> const& attempt) {
        std::lock_guard<std::mutex> const lock(mutex_);
        if (!isTaken_)
            attempts_.emplace(place, attempt);
        return !isTaken_;
    }
    Attempts<T> take() {
        std::lock_guard<std::mutex> const lock(mutex_);
        isTaken_ = true;
        return std::move(attempts_);
    }

private:
    std::mutex mutex_;      // a leaf
    Attempts<T> attempts_;  // guarded by mutex_, as the next
    bool isTaken_ = false;
};

/** Objects of a broker that are to be watched. A few threads take one after the other: all at once
 * would keep each other waiting for longer than an answer is waited for. */
template <class T>
struct Queue {
    /** With what has been watched of them earlier. */
    std::vector<std::pair<Found, std::weak_ptr<T const>>> objects;
    std::atomic<std::size_t> next{0};

    /** Watches objects until none is left, or the time is over. What nobody takes any more ends at
     * once: it is begun again. Under the run permission. */
    void serve(WatchOne<T> const& watch, Clock::time_point end, Harvest<T>& harvest) {
        while (Clock::now() < end) {
            std::size_t const at = next++;
            if (at >= objects.size())
                return;
            auto const& [object, earlier] = objects[at];
            if (!harvest.add(object.place, tryOnce(watch, object, earlier.lock().get())))
                return;
        }
    }
};

/** An object that is there, and what is watched of it. */
struct Known {
    std::string name;
    Json told = {};  // on the board, but for what is missing
    bool isWatchable = false;
    bool isSilent = false;  // would be, if its process answered
    Watch<WatchedValues> values = {};
    Watch<WatchedCalls> calls = {};
};

}  // namespace

// ---- The inside --------------------------------------------------------------------------------

class Hub::Inside {
public:
    explicit Inside(Settings const& settings)
        : board_(static_cast<Board::Version>(timeNow())),
          patience_(std::min<std::chrono::nanoseconds>(settings.patience(), kLookPatience)),
          asking_(patience_),
          orb_(*TreflectORB::getInstance(NSID_UNIT)),
          inbox_(*new Inbox),
          calls_(*new Events),
          reaper_(*new Reaper),
          vigil_(*new Vigil),
          brokers_(*new BrokerFollower),
          classes_(*new ClassFollower(
              orb_, ClassFollower::Present::kKnown,
              [this](TreflectObject const&, std::string const&) { noteCreation(); },
              [this](TreflectObject const& object, std::string const&) {
                  noteDeletion(placeOf(object));
              })) {
        TreflectHandlerState const inside(true);
        orb_.registerOrbCreation(&brokers_, false);
        orb_.registerOrbDeletion(&brokers_);
        std::thread([this] { tellBoard(); }).detach();
    }

    Board& board() { return board_; }
    std::shared_ptr<Listener> listen(Wanted const& wanted);
    void tend();

private:
    static constexpr std::chrono::seconds kLookPatience{2};

    using WishesPtr = std::shared_ptr<Wishes const>;

    void leave(Wishes const* wishes);
    void noteCreation();
    void noteDeletion(Place place);
    void tellBoard();

    // The main thread's.
    void takeNotices();
    void lookWhileDeaf(Clock::time_point now);
    void look();
    void enter(Forest const& forest);
    void forgetAbsent(Forest const& forest);
    void forget(Place place);
    void tell(Place place, Known const& known);
    Json jsonOf(Place place, Node const& node, Forest const& forest) const;
    bool isSilent(unsigned int broker) const;
    void ask();
    void tellProcesses(std::vector<Answer<Facts>> const& facts, double seconds);
    void tellTraffic(std::vector<Answer<Facts>> const& facts, double seconds);
    void tellWaits(std::vector<Answer<Facts>> const& facts);
    std::string nameOfBroker(unsigned int broker) const;
    void hopeLater();
    void hopeForThoseAwake();
    void forgetHopes();
    void tellSilent(TreflectOrbId broker);
    void watchWhatIsWanted();
    template <class T>
    void begin(Watch<T> Known::*what, Patterns Wishes::*wanted, WatchOne<T> const& watch);
    template <class T>
    void end(Watch<T> Known::*what, Patterns Wishes::*wanted);
    template <class T>
    void end(Place place, Watch<T>& watch);
    template <class T>
    Attempts<T> serve(std::map<TreflectOrbId, std::shared_ptr<Queue<T>>> const& queues,
                      WatchOne<T> const& watch);
    template <class T>
    void take(Place place, Watch<T>& watch, Attempt<T> const& attempt);
    std::vector<WishesPtr> presentWishes() const;
    bool isAnyWished(bool Wishes::*) const;

    Board board_;
    std::chrono::nanoseconds const patience_;
    Asking asking_;
    TreflectORB& orb_;
    Inbox& inbox_;
    Events& calls_;
    Reaper& reaper_;
    Vigil& vigil_;
    BrokerFollower& brokers_;
    ClassFollower& classes_;

    mutable std::mutex mutex_;  // a leaf
    // Guarded by mutex_, up to the next remark.
    std::map<Wishes const*, std::weak_ptr<Wishes const>> wishes_;
    bool haveWishesChanged_ = false;
    std::vector<Place> deleted_;
    bool isCreated_ = false;

    // Of the main thread.
    Processes processes_;
    std::set<std::string> knownProcesses_;
    std::map<Place, Known> objects_;
    std::map<std::string, Facts> before_;  // by the names of processes
    Clock::time_point asked_ = {};
    Clock::time_point lookAt_ = {};     // when to look again
    Clock::time_point notBefore_ = {};  // whatever happens
    bool isDeaf_ = false;               // it hears of no objects yet
    Clock::time_point deafLookAt_ = {};
    std::map<TreflectOrbId, Hope> hopes_;
    Clock::time_point hopeAt_ = Clock::time_point::max();
    Clock::time_point stopAt_ = Clock::time_point::max();  // when to end what nobody wants
    bool isWatchingDue_ = true;
};

// ---- Listeners ---------------------------------------------------------------------------------

namespace {

class BoardListener final : public Hub::Listener {
public:
    BoardListener(Board const& board, std::shared_ptr<Wishes const> wishes, Board::Version since)
        : board_(board), wishes_(std::move(wishes)), since_(since) {
        if (!wishes_->values.empty())
            wish_.values = [this](auto const& name) { return wishes_->values.matches(name); };
        if (!wishes_->calls.empty())
            wish_.calls = [this](auto const& name) {
                return name.empty() || wishes_->calls.matches(name);
            };
        wish_.processes = wishes_->processes;
    }

    std::optional<std::string> next() override {
        constexpr std::chrono::milliseconds kPace(100);  // slower than that nobody sees it
        constexpr std::chrono::milliseconds kMoment(300);
        constexpr std::chrono::seconds kSignOfLife(10);
        std::this_thread::sleep_until(last_ + kPace);
        if (last_ != Clock::time_point())
            board_.wait(since_, kMoment);
        if (board_.isClosed())
            return std::nullopt;
        std::string const json = board_.take(since_, wish_);
        last_ = Clock::now();
        bool const isSignDue = last_ - told_ >= kSignOfLife;
        if (json.empty() && !isSignDue)
            return "";
        told_ = last_;
        return json.empty() ? ": still here\n\n"
                            : fmt::format("id: {}\ndata: {}\n\n", since_, json);
    }

private:
    Board const& board_;
    std::shared_ptr<Wishes const> const wishes_;
    Board::Wish wish_;
    Board::Version since_;
    Clock::time_point last_ = {};            // when the board has been looked at
    Clock::time_point told_ = Clock::now();  // when something has been told
};

}  // namespace

std::shared_ptr<Hub::Listener> Hub::Inside::listen(Wanted const& wanted) {
    WishesPtr const wishes(
        new Wishes{Patterns(wanted.names), Patterns(wanted.calls), wanted.processes},
        [this](Wishes const* gone) {
            leave(gone);
            delete gone;
        });
    std::lock_guard<std::mutex> const lock(mutex_);
    if (wishes_.size() >= HttpServer::kMostStreams || board_.isClosed())
        throw Failure(ExitCode::kTimedOut, "too many listen already");
    wishes_[wishes.get()] = wishes;
    haveWishesChanged_ = true;
    return std::make_shared<BoardListener>(board_, wishes, wanted.since);
}

void Hub::Inside::leave(Wishes const* wishes) {
    std::lock_guard<std::mutex> const lock(mutex_);
    wishes_.erase(wishes);
    haveWishesChanged_ = true;
}

// ---- What others tell --------------------------------------------------------------------------

void Hub::Inside::noteCreation() {
    std::lock_guard<std::mutex> const lock(mutex_);
    isCreated_ = true;
}

void Hub::Inside::noteDeletion(Place place) {
    std::lock_guard<std::mutex> const lock(mutex_);
    deleted_.push_back(place);
}

/** The body of the hub's thread, which goes on to the end of the process. */
void Hub::Inside::tellBoard() {
    constexpr std::chrono::milliseconds kPace(50);
    for (;;) {
        pollfd ready[] = {{inbox_.descriptor(), POLLIN, 0}, {calls_.descriptor(), POLLIN, 0}};
        poll(ready, 2, -1);
        for (auto const& [source, value] : inbox_.take()) {
            std::string json = source->begin + textOf(show(source->types, 0, value).json) + "]";
            inbox_.ifWatched(*source, [&, &watched = *source] {
                board_.put(Piece::kValue, watched.key, std::move(json), watched.object);
            });
        }
        std::size_t lost = 0;
        for (Event const& event : calls_.take(lost))
            board_.addEvent(event.json.value("object", ""), textOf(event.json));
        if (lost > 0)
            board_.addEvent("", textOf({{"time", timeNow()}, {"event", "lost"}, {"count", lost}}));
        board_.publish();
        std::this_thread::sleep_for(kPace);
    }
}

// ---- Looking around ----------------------------------------------------------------------------

void Hub::Inside::tend() {
    constexpr std::chrono::seconds kAskAgain(2);
    takeNotices();
    hopeForThoseAwake();
    auto const now = Clock::now();
    if (now >= hopeAt_) {
        hopeAt_ = Clock::time_point::max();
        isWatchingDue_ = true;
    }
    lookWhileDeaf(now);
    if (now >= lookAt_)
        look();
    else if (now - asked_ >= kAskAgain && isAnyWished(&Wishes::processes))
        ask();
    watchWhatIsWanted();
    board_.publish();
}

/** Of objects nobody is told as long as a process hangs at which this one registers: they are
 * looked for now and then, and once more when that is over. */
void Hub::Inside::lookWhileDeaf(Clock::time_point now) {
    constexpr std::chrono::seconds kPace(2);
    bool const isDeaf = !classes_.awaitRegistrations({});
    if (std::exchange(isDeaf_, isDeaf) == isDeaf && !(isDeaf && now >= deafLookAt_))
        return;
    lookAt_ = std::min(lookAt_, std::max(now, notBefore_));
    deafLookAt_ = now + kPace;
}

bool Hub::Inside::isAnyWished(bool Wishes::*what) const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return std::any_of(wishes_.begin(), wishes_.end(),
                       [what](auto const& one) { return one.first->*what; });
}

/** They may be looked at as long as one likes, without the mutex. */
std::vector<Hub::Inside::WishesPtr> Hub::Inside::presentWishes() const {
    std::vector<WishesPtr> present;
    std::lock_guard<std::mutex> const lock(mutex_);
    for (auto const& one : wishes_) {
        if (WishesPtr wishes = one.second.lock())
            present.push_back(std::move(wishes));
    }
    return present;
}

void Hub::Inside::takeNotices() {
    constexpr std::chrono::milliseconds kSoon(100);  // one object seldom comes alone
    std::deque<BrokerFollower::Change> changes;
    {
        TreflectHandlerState const inside(true);
        changes = brokers_.take();
    }
    std::vector<Place> deleted;
    bool isChanged = !changes.empty();
    {
        std::lock_guard<std::mutex> const lock(mutex_);
        deleted.swap(deleted_);
        isChanged = std::exchange(isCreated_, false) || isChanged;
        if (std::exchange(haveWishesChanged_, false)) {
            constexpr std::chrono::seconds kLinger(5);  // who loads a page anew is back at once
            isWatchingDue_ = true;
            stopAt_ = Clock::now() + kLinger;
        }
    }
    for (Place const place : deleted)
        forget(place);
    if (isChanged)
        lookAt_ = std::min(lookAt_, std::max(Clock::now() + kSoon, notBefore_));
}

/** All objects are asked for their children: when something has come or gone, and no more than a
 * tenth of the time. */
void Hub::Inside::look() {
    constexpr int kShare = 10;
    auto const begin = Clock::now();
    lookAt_ = Clock::time_point::max();
    processes_ = presentProcesses(asking_);
    std::set<std::string> names;
    for (Process const& process : processes_)
        names.insert(process.name());
    for (std::string const& name : knownProcesses_) {
        if (names.count(name) == 0)
            board_.remove(Piece::kProcess, name);
    }
    knownProcesses_ = names;
    classes_.followClassesOf(asking_, processes_);
    Objects objects(asking_, processes_);
    Forest const& forest = objects.all();
    forgetHopes();
    enter(forest);
    forgetAbsent(forest);
    ask();
    notBefore_ = Clock::now() + (Clock::now() - begin) * kShare;
}

/** Watches that could not be begun are tried once more. */
void Hub::Inside::hopeLater() {
    constexpr std::chrono::seconds kHope(20);
    hopeAt_ = std::min(hopeAt_, Clock::now() + kHope);
}

/** Those that have been given up are waited for, and asked again when they answer. */
void Hub::Inside::hopeForThoseAwake() {
    for (TreflectOrbId const broker : vigil_.take())
        hopes_[broker].begin();
    auto const now = Clock::now();
    for (auto& [broker, hope] : hopes_) {
        if (now < hope.at)
            continue;
        hope.at = Clock::time_point::max();
        asking_.hopeAgain(broker);
        lookAt_ = now;
        isWatchingDue_ = true;
    }
    for (Process const& process : processes_) {
        for (TreflectOrbId const broker : process.brokers) {
            auto const hope = hopes_.find(broker);
            bool const isHoped = hope != hopes_.end() && hope->second.isPending();
            if (asking_.isGivenUp(broker) && !isHoped && vigil_.await(broker))
                tellSilent(broker);
        }
    }
}

void Hub::Inside::tellSilent(TreflectOrbId broker) {
    for (auto& [place, known] : objects_) {
        if (place.broker != broker.value())
            continue;
        known.told["answers"] = false;
        tell(place, known);
    }
}

/** Of brokers that have gone nothing is hoped. */
void Hub::Inside::forgetHopes() {
    for (auto hope = hopes_.begin(); hope != hopes_.end();)
        hope = ownerOf(processes_, hope->first.value()) ? std::next(hope) : hopes_.erase(hope);
}

void Hub::Inside::enter(Forest const& forest) {
    for (auto const& [place, node] : forest.nodes()) {
        if (isOfTheSystem(node))
            continue;
        Known& known = objects_[place];
        std::string const name = forest.nameOf(place);
        bool const isWatchable = node.isReflective && node.answers;
        isWatchingDue_ = isWatchingDue_ || known.name != name || known.isWatchable != isWatchable;
        known.name = name;
        known.isWatchable = isWatchable;
        known.isSilent = node.isReflective && !node.answers;
        if (node.classId != 0)
            classes_.follow(node.classId, node.className);
        known.told = jsonOf(place, node, forest);
        tell(place, known);
    }
}

void Hub::Inside::tell(Place place, Known const& known) {
    Json told = known.told;
    if (!known.values.missing.empty())
        told["unwatched"]["values"] = known.values.missing;
    if (!known.calls.missing.empty())
        told["unwatched"]["calls"] = known.calls.missing;
    board_.put(Piece::kObject, idOf(place), textOf(told));
}

Json Hub::Inside::jsonOf(Place place, Node const& node, Forest const& forest) const {
    Json told = {{"id", idOf(place)},
                 {"name", forest.nameOf(place)},
                 {"class", node.className},
                 {"identifier", node.identifier},
                 {"process", nameOfBroker(place.broker)},
                 {"reflective", node.isReflective},
                 {"answers", node.answers}};
    if (node.parent && forest.find(*node.parent))
        told["parent"] = idOf(*node.parent);
    return told;
}

bool Hub::Inside::isSilent(unsigned int broker) const {
    Process const* const owner = ownerOf(processes_, broker);
    return owner && asking_.isGivenUp(owner->broker());
}

/** Of a process that does not answer nobody knows what has gone. */
void Hub::Inside::forgetAbsent(Forest const& forest) {
    std::vector<Place> absent;
    for (auto& [place, known] : objects_) {
        if (forest.find(place))
            continue;
        if (!isSilent(place.broker)) {
            absent.push_back(place);
            continue;
        }
        known.told["answers"] = false;
        tell(place, known);
    }
    for (Place const place : absent)
        forget(place);
}

void Hub::Inside::forget(Place place) {
    auto const found = objects_.find(place);
    if (found == objects_.end())
        return;
    Known known = std::move(found->second);
    objects_.erase(found);
    // There is room for another one.
    isWatchingDue_ = isWatchingDue_ || known.values.isBegun() || known.calls.isBegun();
    end(place, known.values);
    end(place, known.calls);
    board_.forgetValues(idOf(place) + "/");
    board_.remove(Piece::kObject, idOf(place));
}

// ---- What processes tell of themselves ---------------------------------------------------------

void Hub::Inside::ask() {
    auto const facts = askProcessObjects<Facts>(asking_, processes_, factsOf);
    auto const now = Clock::now();
    double const seconds = std::chrono::duration<double>(now - asked_).count();
    asked_ = now;
    tellProcesses(facts, seconds);
    tellTraffic(facts, seconds);
    tellWaits(facts);
    before_.clear();
    for (std::size_t i = 0; i < processes_.size(); ++i) {
        if (facts[i])
            before_[processes_[i].name()] = facts[i].value;
    }
}

std::string Hub::Inside::nameOfBroker(unsigned int broker) const {
    return broker == orb_.orbId().value() ? "reflectorb web" : nameOfOwner(processes_, broker);
}

void Hub::Inside::tellProcesses(std::vector<Answer<Facts>> const& facts, double seconds) {
    for (std::size_t i = 0; i < processes_.size(); ++i) {
        std::string const name = processes_[i].name();
        Json told = {{"process", name}};
        told.update(::jsonOf(processes_[i], facts[i]));
        auto const before = before_.find(name);
        if (facts[i] && before != before_.end())
            told["callsPerSecond"] = rateOf(before->second.sent(), facts[i].value.sent(), seconds);
        board_.put(Piece::kProcess, name, textOf(told));
    }
}

void Hub::Inside::tellTraffic(std::vector<Answer<Facts>> const& facts, double seconds) {
    struct Flow {
        std::uint64_t sent = 0;
        std::uint64_t failed = 0;
    };
    using Flows = std::map<std::pair<std::string, std::string>, Flow>;
    Flows flows;
    Flows before;
    auto const add = [this](Flows& to, std::string const& from, Facts const& told) {
        for (processobject::Traffic const& counted : told.traffic) {
            Flow& flow = to[{from, nameOfBroker(counted.destination)}];
            flow.sent += counted.sent;
            flow.failed += counted.failed;
        }
    };
    for (std::size_t i = 0; i < processes_.size(); ++i)
        add(flows, processes_[i].name(), facts[i].value);
    for (auto const& told : before_)
        add(before, told.first, told.second);
    Json edges = Json::array();
    for (auto const& [between, flow] : flows)
        edges.push_back({{"from", between.first},
                         {"to", between.second},
                         {"sent", flow.sent},
                         {"failed", flow.failed},
                         {"callsPerSecond", rateOf(before[between].sent, flow.sent, seconds)}});
    board_.put(Piece::kView, "traffic", textOf({{"view", "traffic"}, {"edges", edges}}));
}

void Hub::Inside::tellWaits(std::vector<Answer<Facts>> const& facts) {
    std::vector<WaitingCall> calls;
    for (std::size_t i = 0; i < processes_.size(); ++i) {
        for (processobject::Call const& call : facts[i].value.calls) {
            auto const object = objects_.find({call.target, call.object});
            if (call.milliseconds > 0)
                calls.push_back(waitingCall(processes_[i].name(), call, nameOfBroker(call.target),
                                            object == objects_.end() ? "" : object->second.name));
        }
    }
    Json all = Json::array();
    for (WaitingCall const& call : calls)
        all.push_back(call.json());
    board_.put(Piece::kView, "waits",
               textOf({{"view", "waits"}, {"waits", all}, {"cycles", cyclesOf(calls)}}));
}

// ---- Watching ----------------------------------------------------------------------------------

void Hub::Inside::watchWhatIsWanted() {
    bool const mayStop = Clock::now() >= stopAt_;
    if (!isWatchingDue_ && !mayStop)
        return;
    isWatchingDue_ = false;
    if (mayStop)
        stopAt_ = Clock::time_point::max();
    if (mayStop) {
        end(&Known::values, &Wishes::values);
        end(&Known::calls, &Wishes::calls);
    }
    begin<WatchedValues>(&Known::values, &Wishes::values, [this](Found const& found, auto const&) {
        return std::make_shared<WatchedValues>(found, inbox_);
    });
    begin<WatchedCalls>(&Known::calls, &Wishes::calls,
                        [this](Found const& found, WatchedCalls const* earlier) {
                            return std::make_shared<WatchedCalls>(found, calls_, earlier);
                        });
}

namespace {

bool isWanted(std::vector<std::shared_ptr<Wishes const>> const& all, Patterns Wishes::*what,
              std::string const& name) {
    return std::any_of(all.begin(), all.end(),
                       [&](auto const& wishes) { return ((*wishes).*what).matches(name); });
}

}  // namespace

template <class T>
void Hub::Inside::begin(Watch<T> Known::*what, Patterns Wishes::*wanted, WatchOne<T> const& watch) {
    auto const wishes = presentWishes();
    auto begun = static_cast<std::size_t>(std::count_if(
        objects_.begin(), objects_.end(),
        [what](auto const& object) { return (object.second.*what).watching != nullptr; }));
    std::map<TreflectOrbId, std::shared_ptr<Queue<T>>> queues;
    for (auto& [place, known] : objects_) {
        Watch<T>& known_ = known.*what;
        if (known_.isDone || !(known.isWatchable || known.isSilent) ||
            !isWanted(wishes, wanted, known.name))
            continue;
        if (known.isSilent || (!known_.isBegun() && begun == kMostWatched)) {
            std::string const before = std::exchange(
                known_.missing, known.isSilent
                                    ? "no answer in time"
                                    : fmt::format("{} objects are watched already", kMostWatched));
            if (known_.missing != before)
                tell(place, known);
            continue;
        }
        begun += !known_.isBegun();
        std::shared_ptr<Queue<T>>& queue = queues[TreflectOrbId(place.broker)];
        if (!queue)
            queue = std::make_shared<Queue<T>>();
        queue->objects.push_back({{known.name, place}, known_.watching});
    }
    for (auto const& [place, attempt] : serve(queues, watch)) {
        Known& known = objects_.at(place);
        std::string const before = (known.*what).missing;
        take(place, known.*what, attempt);
        if ((known.*what).missing != before)
            tell(place, known);
    }
}

/** Those that are left are served the next time. */
template <class T>
Attempts<T> Hub::Inside::serve(std::map<TreflectOrbId, std::shared_ptr<Queue<T>>> const& queues,
                               WatchOne<T> const& watch) {
    constexpr std::size_t kLanes = 8;
    std::vector<TreflectOrbId> brokers;
    std::vector<std::shared_ptr<Queue<T>>> lanes;
    for (auto const& [broker, queue] : queues) {
        for (std::size_t i = 0; i < std::min(kLanes, queue->objects.size()); ++i) {
            brokers.push_back(broker);
            lanes.push_back(queue);
        }
    }
    auto const harvest = std::make_shared<Harvest<T>>();
    asking_.each<bool>(brokers, [lanes, watch, harvest, slice = patience_ / 4](std::size_t number) {
        lanes[number]->serve(watch, Clock::now() + slice, *harvest);
        return true;
    });
    Attempts<T> all = harvest->take();
    for (auto const& [broker, queue] : queues) {
        bool const isLate = asking_.isGivenUp(broker);
        for (auto const& one : queue->objects) {
            Place const place = one.first.place;
            if (isLate)
                all.insert({place, {{}, "no answer in time"}});
            else
                isWatchingDue_ = isWatchingDue_ || all.count(place) == 0;
        }
    }
    return all;
}

/** What could not be begun, or not wholly, is tried again: as often as it takes when its process
 * has not answered in time, and else a few times, since its class may be learned. */
template <class T>
void Hub::Inside::take(Place place, Watch<T>& watch, Attempt<T> const& attempt) {
    constexpr int kMostFailures = 3;
    bool const isLate = asking_.isGivenUp(TreflectOrbId(place.broker));
    watch.failures += !isLate;
    watch.missing = attempt.missing;
    if (attempt.watching) {
        if constexpr (std::is_same_v<T, WatchedValues>)
            stop(watch);  // calls have been taken over from it
        reaper_.take(place.broker, std::exchange(watch.watching, attempt.watching));
    }
    watch.isDone = watch.missing.empty() || watch.failures >= kMostFailures;
    if (!watch.isDone)
        hopeLater();
}

/** Ends those that nobody wants. */
template <class T>
void Hub::Inside::end(Watch<T> Known::*what, Patterns Wishes::*wanted) {
    auto const wishes = presentWishes();
    for (auto& [place, known] : objects_) {
        Watch<T>& watch = known.*what;
        bool const isOfNoAccount = !watch.isBegun() && watch.missing.empty();
        if (isOfNoAccount || isWanted(wishes, wanted, known.name))
            continue;
        bool const wasToldOf = !watch.missing.empty();
        end(place, watch);
        if constexpr (std::is_same_v<T, WatchedValues>)
            board_.forgetValues(idOf(place) + "/");
        if (wasToldOf)
            tell(place, known);
    }
}

template <class T>
void Hub::Inside::end(Place place, Watch<T>& watch) {
    stop(watch);
    reaper_.take(place.broker, std::move(watch.watching));
    watch = {};
}

// ---- The outside -------------------------------------------------------------------------------

Hub::Hub(Settings const& settings) : inside_(*new Inside(settings)) {}

std::shared_ptr<Hub::Listener> Hub::listen(Wanted const& wanted) {
    return inside_.listen(wanted);
}

Board const& Hub::board() const {
    return inside_.board();
}

Found Hub::find(std::string const& id) const {
    std::string const told = board().find(Board::Kind::kObject, id);
    if (told.empty())
        throw Failure(ExitCode::kNotThere,
                      "there is no object with the id \"" + id.substr(0, 100) + "\", or no more");
    return {Json::parse(told)["name"].get<std::string>(), placeOfId(id)};
}

void Hub::tend() {
    inside_.tend();
}

void Hub::close() {
    inside_.board().close();
}
