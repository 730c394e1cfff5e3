#include "Following.h"

#include <handler_threads.h>

#include <system_error>
#include <thread>

std::string absoluteNameOf(TreflectObject const& object) {
    constexpr std::chrono::milliseconds kPatience(500);
    constexpr int kDeepest = 100;
    TreflectDeadline const within(kPatience);
    std::string name;
    TreflectObject at(object);
    for (int depth = 0; depth < kDeepest && at.isConnected(); ++depth) {
        name = "/" + at.getRelName() + name;
        at = at.getParent();
    }
    return name;
}

Newcomer::Newcomer(TreflectObject const& object) : place(placeOf(object)) {
    TipprmiOID const whole = object.identifier();
    char const* const text = whole.getIdString();
    identifier = identifierText(text ? text : "", place.broker);
}

/** Of one class, and of creations or deletions. */
class ClassFollower::Observer final : public TreflectObserver {
public:
    Observer(Notice const& notice, std::string className)
        : notice_(notice), className_(std::move(className)) {}

    bool update() override {
        notice_(*getSource(), className_);
        return true;
    }

private:
    Notice const& notice_;
    std::string const className_;
};

void ClassFollower::follow(unsigned int classId, std::string const& name) {
    if (!followed_.insert(classId).second)
        return;
    {
        std::lock_guard<std::mutex> const lock(mutex_);
        ++pending_;
    }
    begin(classId, name);
}

/** Registering waits for all processes of the group, for those that hang up to a minute. */
void ClassFollower::begin(unsigned int classId, std::string const& name) {
    auto const registers = [this, classId, name] {
        {
            TreflectHandlerState const inside(true);
            orb_.observeDeletions(classId, *new Observer(deleted_, name));
            orb_.observeCreations(classId, *new Observer(created_, name),
                                  present_ == Present::kTold);
        }
        std::lock_guard<std::mutex> const lock(mutex_);
        --pending_;
        changed_.notify_all();
    };
    try {
        std::thread(registers).detach();
    } catch (std::system_error const&) {
        missed_[classId] = name;
    }
}

bool ClassFollower::awaitRegistrations(std::chrono::milliseconds most) {
    for (auto const& [classId, name] : std::exchange(missed_, {}))
        begin(classId, name);
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, most, [this] { return pending_ == 0; });
}

void ClassFollower::followClassesOf(
    Asking& asking, Processes const& processes,
    std::function<bool(std::string const& className)> const& wanted) {
    using Known = std::vector<processobject::KnownClass>;
    for (Answer<Known> const& answer : askProcessObjects<Known>(
             asking, processes,
             [](TreflectProcessClient const& client) { return valueOf(client.classes()); })) {
        for (processobject::KnownClass const& known : answer.value) {
            if (!wanted || wanted(known.name))
                follow(known.id, known.name);
        }
    }
}
