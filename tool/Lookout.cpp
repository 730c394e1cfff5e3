#include "Lookout.h"

#include <handler_threads.h>

#include <algorithm>
#include <future>
#include <system_error>
#include <thread>

namespace {

constexpr int kMostFailures = 3;

}  // namespace

Lookout::Lookout(Tool& tool, Attendant& attendant)
    : tool_(tool),
      attendant_(attendant),
      orb_(*TreflectORB::getInstance(NSID_UNIT)),
      classes_(*new ClassFollower(
          orb_, ClassFollower::Present::kKnown,
          [this](TreflectObject const& object, std::string const&) { created(object); },
          [this](TreflectObject const& object, std::string const&) { deleted(placeOf(object)); })),
      brokers_(*new BrokerFollower),
      reaper_(*new Reaper) {}

std::vector<Begun> Lookout::start(Targets const& targets) {
    constexpr std::chrono::seconds kMoment(1);  // who hangs holds up what is registered
    std::vector<Begun> all;
    for (Answer<Begun> const& answer : beginAll(targets, Attendant::Comes::kAtFirst)) {
        all.push_back(answer.value);
        if (!answer)
            all.back() = {nullptr, ExitCode::kTimedOut, "no answer in time"};
    }
    {
        TreflectHandlerState const inside(true);
        orb_.registerOrbCreation(&brokers_, false);
        orb_.registerOrbDeletion(&brokers_);
    }
    classes_.followClassesOf(tool_.asking(), tool_.processes(),
                             [this](auto const& name) { return attendant_.concerns(name); });
    wasPending_ = !classes_.awaitRegistrations(kMoment);
    lookAfter({});  // for what has come meanwhile
    return all;
}

std::vector<std::string> Lookout::tend() {
    constexpr std::chrono::seconds kWhileDeaf(2);
    takeBrokers();
    bool const isPending = !classes_.awaitRegistrations({});
    if (wasPending_ != isPending)
        lookAfter({});
    wasPending_ = isPending;
    if (!looks_.empty() && Clock::now() >= *looks_.begin()) {
        looks_.erase(looks_.begin(), looks_.upper_bound(Clock::now()));
        look();
        // Of what comes nobody is told as long as somebody else hangs.
        if (isPending)
            lookAfter(kWhileDeaf);
    }
    reap();
    TreflectHandlerState const inside(true);
    if (std::exchange(wantsLook_, false))
        lookAfter(std::chrono::seconds(1));
    return std::exchange(failures_, {});
}

void Lookout::lookAfter(std::chrono::milliseconds time) {
    looks_.insert(Clock::now() + time);
}

// ---- What others tell --------------------------------------------------------------------------

/** Who announces the object waits for this. It is attended to by another thread, since the object
 * may not be able to answer before that: then nobody waits, and soon not even for a moment. */
void Lookout::created(TreflectObject const& object) {
    constexpr std::chrono::seconds kMoment(1);
    Newcomer const newcomer(object);
    if (isKnown(newcomer.place))
        return;
    makeRoomFor(newcomer.place);
    auto const done = std::make_shared<std::promise<void>>();
    try {
        std::thread([this, newcomer, done] {
            TreflectHandlerState const inside(true);
            TreflectDeadline const within(tool_.settings().patience());
            attend(newcomer);
            done->set_value();
        }).detach();
    } catch (std::system_error const&) {
        wantsLook_ = true;
        return;
    }
    if (slow_.count(newcomer.place.broker) != 0)
        return;
    bool isDone = false;
    {
        TreflectReleaseHandlerState const outside;
        isDone = done->get_future().wait_for(kMoment) == std::future_status::ready;
    }
    if (!isDone)
        slow_.insert(newcomer.place.broker);
}

void Lookout::attend(Newcomer const& newcomer) {
    try {
        for (Target const& target : attendant_.matching(newcomer))
            begin(target, Attendant::Comes::kLater);
    } catch (std::exception const&) {  // a Failure, or want of memory
        wantsLook_ = true;
    }
}

void Lookout::deleted(Place place) {
    for (auto& [key, entry] : entries_) {
        if (key.first == place)
            end(entry);
    }
}

void Lookout::end(Entry& entry) {
    if (entry.isGone)
        return;
    entry.isGone = true;
    entry.goneAt = Clock::now();
    if (!entry.isBusy)  // else who is busy with it tells so
        attendant_.gone(entry.target);
}

bool Lookout::isKnown(Place place) const {
    auto at = entries_.lower_bound({place, {}});
    while (at != entries_.end() && at->first.first == place && at->second.isGone)
        ++at;
    return at != entries_.end() && at->first.first == place;
}

/** Forgets those that were there before: an object that comes may have the id of one that went. */
void Lookout::makeRoomFor(Place place) {
    auto at = entries_.lower_bound({place, {}});
    while (at != entries_.end() && at->first.first == place) {
        if (at->second.isBusy) {
            wantsLook_ = true;  // when it is over with that one
            ++at;
            continue;
        }
        if (at->second.attended)
            over_.emplace_back(place.broker, std::move(at->second.attended));
        at = entries_.erase(at);
    }
}

void Lookout::takeBrokers() {
    constexpr std::chrono::milliseconds kFirstLooks[] = {
        std::chrono::milliseconds(100), std::chrono::seconds(1), std::chrono::seconds(5)};
    TreflectHandlerState const inside(true);
    for (BrokerFollower::Change const& change : brokers_.take()) {
        unsigned int const broker = orb_.convertId(change.broker).value();
        slow_.erase(broker);
        for (auto& [key, entry] : entries_) {
            if (!change.isThere && key.first.broker == broker)
                end(entry);
        }
        if (!change.isThere)
            continue;
        // It may have objects later than it is there.
        for (std::chrono::milliseconds const time : kFirstLooks)
            lookAfter(time);
    }
}

// ---- Beginning ---------------------------------------------------------------------------------

/** Of those that are known, too, what has come of them, unless another thread is at it. */
Begun Lookout::begin(Target const& target, Attendant::Comes when) {
    Entry& entry = entries_[{target.object.place, target.member}];
    if (entry.isBusy || entry.isGone || entry.attended || entry.failures == kMostFailures)
        return {entry.attended};
    entry.isBusy = true;
    entry.target = target;
    Begun begun;
    try {
        begun = attendant_.begin(target, when);
    } catch (Failure const& why) {
        begun.outcome = why.outcome();
        begun.text = why.what();
    } catch (std::exception const& why) {
        begun.outcome = ExitCode::kNoAccess;
        begun.text = why.what();
    }
    entry.isBusy = false;
    entry.attended = begun.attended;
    if (entry.isGone)  // meanwhile, so that nobody has told so yet
        attendant_.gone(entry.target);
    if (begun.outcome == ExitCode::kDone)
        entry.failures = begun.attended ? entry.failures : kMostFailures;
    else
        noteFailure(entry, begun, when);
    return begun;
}

/** Of one that comes later it is told in the end, of the others at once. */
void Lookout::noteFailure(Entry& entry, Begun const& begun, Attendant::Comes when) {
    bool const isFinal = begun.attended || ++entry.failures == kMostFailures;
    wantsLook_ = wantsLook_ || !isFinal;
    if (isFinal && when == Attendant::Comes::kLater && !entry.isGone)
        failures_.push_back(entry.target.object.name + ": " + begun.text);
}

std::vector<Answer<Begun>> Lookout::beginAll(Targets const& targets, Attendant::Comes when) {
    std::vector<TreflectOrbId> brokers;
    for (Target const& target : targets)
        brokers.emplace_back(target.object.place.broker);
    return tool_.asking().each<Begun>(brokers, [this, targets, when](std::size_t number) {
        return std::optional(begin(targets[number], when));
    });
}

void Lookout::look() {
    constexpr std::chrono::minutes kHope(1);
    if (Clock::now() >= hopeAt_) {
        tool_.asking().hopeAgain();
        hopeAt_ = Clock::time_point::max();
    }
    tool_.lookAgain();
    classes_.followClassesOf(tool_.asking(), tool_.processes(),
                             [this](auto const& name) { return attendant_.concerns(name); });
    Targets unknown;
    try {
        unknown = attendant_.find(tool_);
    } catch (Failure const&) {
        return;
    }
    if (!tool_.objects().missing().isAnySilent()) {
        hopeAt_ = Clock::time_point::max();
    } else if (hopeAt_ == Clock::time_point::max()) {
        hopeAt_ = Clock::now() + kHope;
        lookAfter(kHope);
    }
    {
        TreflectHandlerState const inside(true);
        auto const isBegun = [this](Target const& target) {
            auto const found = entries_.find({target.object.place, target.member});
            return found != entries_.end() &&
                   (found->second.attended || found->second.failures == kMostFailures);
        };
        unknown.erase(std::remove_if(unknown.begin(), unknown.end(), isBegun), unknown.end());
    }
    beginAll(unknown, Attendant::Comes::kLater);
}

/** Lets go of what has gone for a while. */
void Lookout::reap() {
    constexpr std::chrono::seconds kWhile(2);
    std::vector<std::pair<unsigned int, std::shared_ptr<void>>> over;
    {
        TreflectHandlerState const inside(true);
        over.swap(over_);
        for (auto at = entries_.begin(); at != entries_.end();) {
            Entry& entry = at->second;
            if (!entry.isGone || entry.isBusy || Clock::now() - entry.goneAt < kWhile) {
                ++at;
                continue;
            }
            if (entry.attended)
                over.emplace_back(at->first.first.broker, std::move(entry.attended));
            at = entries_.erase(at);
        }
    }
    for (auto& [broker, attended] : over)
        reaper_.take(broker, std::move(attended));
}
