#include "Player.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace soak {
namespace {

constexpr unsigned int kPlaces = 5;
constexpr unsigned int kMostWatchers = 4;

}  // namespace

// The distributions of the standard library differ between implementations, so none is used.
Player::Player(Actor& actor, unsigned int number) : actor_(actor), number_(number) {
    Settings const& all = actor.settings;
    std::seed_seq seeds{all.seed, all.actor, all.life, number};
    random_.seed(seeds);
}

unsigned int Player::dice(unsigned int sides) {
    return static_cast<unsigned int>(random_()) % sides;
}

std::vector<Player::Choice> const& Player::choices() {
    static std::vector<Choice> const all{{12, "make", &Player::makeObject},
                                         {10, "drop", &Player::dropObject},
                                         {5, "observe", &Player::observe},
                                         {5, "unobserve", &Player::unobserve},
                                         {12, "ask", &Player::askKnownObject},
                                         {6, "relay", &Player::relay},
                                         {8, "note", &Player::note},
                                         {4, "read", &Player::readByName},
                                         {3, "write", &Player::writeByName},
                                         {2, "walk", &Player::walkTree},
                                         {3, "veto", &Player::veto}};
    return all;
}

void Player::run() {
    while (actor_.turn.begin()) {
        act();
        actor_.turn.finish();
        std::this_thread::sleep_for(std::chrono::microseconds(dice(4000)));
    }
    retire(watchers_);
    retire(leaving_);
    TreflectHandlerState const inside(true);
    objects_.clear();
    homes_.clear();
    guard_.reset();
}

void Player::act() {
    unsigned int weights = 0;
    for (Choice const& choice : choices())
        weights += choice.weight;
    unsigned int number = dice(weights);
    auto choice = choices().begin();
    for (; number >= choice->weight; ++choice)
        number -= choice->weight;
    TreflectHandlerState const inside(true);
    long long const begin = now();
    actor_.journal.write("doing", number_, choice->name);
    (this->*choice->act)();
    actor_.journal.write("did", begin, choice->name);
    destroyWatchersThatAreOver();
}

// ---- Objects

/** Its name is its own for ever; its place in the tree is taken over by the next one. */
void Player::makeObject() {
    unsigned int const place = dice(kPlaces);
    unsigned int const classIndex = dice(kClasses);
    unsigned int const parent = dice(2 * actor_.settings.actors);
    if (objects_.count(place) != 0)
        return;
    std::string const where = std::to_string(number_) + "." + std::to_string(place);
    std::string const name = "o." + actor_.settings.name() + "." + std::to_string(number_) + "." +
                             std::to_string(++made_);
    Announcement announcement{[this, classIndex](char const* verb, std::string const& object) {
        actor_.journal.write(verb, object, classIndex);
    }};
    objects_[place] = std::make_unique<Object>(
        name, std::to_string(actor_.settings.actor) + "." + where, made_, classIndex,
        parent < actor_.settings.actors ? &home(parent) : nullptr, std::move(announcement));
}

void Player::dropObject() {
    objects_.erase(dice(kPlaces));
}

// ---- Observers

void Player::observe() {
    unsigned int const classIndex = dice(kClasses);
    Kind const kind = dice(2) == 0 ? Kind::creations : Kind::deletions;
    bool const plusExisting = kind == Kind::creations && dice(2) == 0;
    auto const habit = static_cast<Watcher::Habit>(dice(3));
    if (watchers_.size() >= kMostWatchers)
        return;
    watchers_.push_back(std::make_unique<Watcher>(actor_, classIndex, kind, plusExisting, habit));
    watchers_.back()->observe();
}

void Player::unobserve() {
    unsigned int const index = dice(kMostWatchers);
    if (index >= watchers_.size())
        return;
    watchers_[index]->unobserve();
    leaving_.push_back(std::move(watchers_[index]));
    watchers_.erase(watchers_.begin() + index);
}

void Player::destroyWatchersThatAreOver() {
    for (auto* const all : {&watchers_, &leaving_})
        all->erase(std::remove_if(all->begin(), all->end(),
                                  [](auto const& watcher) { return watcher->isOver(); }),
                   all->end());
}

// ---- Calls

Client& Player::home(unsigned int actor) {
    std::unique_ptr<Client>& handle = homes_[actor];
    if (!handle || !handle->isConnected())
        handle = std::make_unique<Client>(named(homeOf(actor)));
    return *handle;
}

Client Player::homeForOnce(unsigned int actor) {
    Client handle;
    handle.share_(home(actor));
    return handle;
}

void Player::askKnownObject() {
    Client handle;
    std::string const name = actor_.known.take(dice(16), handle);
    if (name.empty())
        return;
    long long const begin = now();
    record(actor_, begin, name, "getName", handle.getName(), name);
}

void Player::relay() {
    unsigned int const length = 2 + dice(3);
    unsigned int const first = dice(actor_.settings.actors);
    std::string path;
    std::string targets = homeOf(first);
    for (unsigned int i = 1; i < length; ++i) {
        unsigned int const next = dice(actor_.settings.actors);
        path += (path.empty() ? "" : ".") + std::to_string(next);
        targets += "+" + homeOf(next);
    }
    long long const begin = now();
    record(actor_, begin, targets, "relay", home(first).relay(path), length);
}

/** The permission is kept from the sending on, so that the handle still tells where it went. */
void Player::note() {
    Client const& handle = home(dice(actor_.settings.actors));
    for (unsigned int i = dice(8); i > 0; --i) {
        if (handle.note(actor_.settings.name()))
            ++actor_.sent[std::to_string(handle.getStub_()->orbId().value())];
    }
}

void Player::readByName() {
    unsigned int const target = dice(actor_.settings.actors);
    Client handle = homeForOnce(target);
    long long const begin = now();
    TreflectAttribute const& name = handle.attribute("Name");
    record(actor_, begin, homeOf(target), "attribute", name.fetch<std::string>(), homeOf(target));
}

void Player::writeByName() {
    unsigned int const target = dice(actor_.settings.actors);
    unsigned int const level = 2 * dice(1000);
    Client handle = homeForOnce(target);
    long long const begin = now();
    auto const stored = handle.attribute("Level").store(level);
    TipprmiResult<unsigned int> const result =
        stored ? TipprmiResult<unsigned int>(level) : TipprmiFailure(stored.code());
    record(actor_, begin, homeOf(target), "set-attribute", result, level);
    if (!stored && stored.code() == TipprmiFailure::kVetoed)
        actor_.journal.write("fault", "an even level was forbidden");
}

void Player::walkTree() {
    unsigned int const target = dice(actor_.settings.actors);
    Client handle = homeForOnce(target);
    std::string const path = handle.getAbsName();
    if (!path.empty() && path != "/" + homeOf(target))
        actor_.journal.write("fault", homeOf(target), "has the path", path);
    TipprmiSequence<TreflectObject, 0u> children = handle.getChilds();
    unsigned int const number = children.getLength();
    for (unsigned int i = 0; i < 3 && number > 0; ++i) {
        Client child;
        child.share_(children[dice(number)]);
        std::string const name = nameOf(child);
        long long const begin = now();
        record(actor_, begin, name, "child", child.getName(), name);
    }
}

/** While our guard is registered an odd level is refused, as long as it is the same process. */
void Player::veto() {
    unsigned int const target = dice(actor_.settings.actors);
    unsigned int const even = 2 * dice(1000);
    if (!guard_)
        guard_ = std::make_unique<Guard>();
    Client handle = homeForOnce(target);
    auto const before = handle.getNumber();
    TreflectOperation& operation = handle.operation("setLevel");
    if (!before || !operation.preObserve(guard_.get()))
        return;
    long long const begin = now();
    auto const odd = handle.setLevel(even + 1);
    auto const allowed = handle.setLevel(even);
    auto const after = handle.getNumber();
    operation.removeObserver(guard_.get());
    bool const vetoed = !odd && odd.code() == TipprmiFailure::kVetoed;
    actor_.journal.write("call", begin, homeOf(target),
                         vetoed ? "vetoed"
                         : odd  ? "ok"
                                : "failed",
                         "veto");
    if (odd && after && after.value() == before.value())
        actor_.journal.write("fault", homeOf(target), "took an odd level in spite of the observer");
    if (!allowed && allowed.code() == TipprmiFailure::kVetoed)
        actor_.journal.write("fault", homeOf(target), "refused an even level");
}

}  // namespace soak
