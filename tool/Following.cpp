#include "Following.h"

#include <handler_threads.h>

#include <thread>

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
    // Registering waits for all processes of the group, for those that hang up to a minute.
    std::thread([this, classId, name] {
        TreflectHandlerState const inside(true);
        orb_.observeDeletions(classId, *new Observer(deleted_, name));
        orb_.observeCreations(classId, *new Observer(created_, name), present_ == Present::kTold);
    }).detach();
}

void ClassFollower::followClassesOf(Asking& asking, Processes const& processes) {
    using Known = std::vector<processobject::KnownClass>;
    for (Answer<Known> const& answer : askProcessObjects<Known>(
             asking, processes,
             [](TreflectProcessClient const& client) { return valueOf(client.classes()); })) {
        for (processobject::KnownClass const& known : answer.value)
            follow(known.id, known.name);
    }
}
