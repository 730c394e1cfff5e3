// A process whose memory runs out when it is told so, driven by lines on standard input. What a
// command does for itself has memory; what it asks of the library may not have it.
//
//   starve N MORE      the Nth allocation from now on fails, and MORE behind it; "starving"
//   feed               "fed 1" if it was reached, else "fed 0"
//   serve NAME         makes a station; "served 1"
//   call NAME SIZE     calls it through a handle that is kept; "called 1" or "called 0"
//   find NAME SIZE     the same through a new handle; "found 1" or "found 0"
//   make NAME          makes an object of the class, and destroys that of the same name; "made 1"
//   unmake NAME        destroys it; "unmade 1"
//   watch              observes creations of the class, and existing objects; "watched 1"
//   await NAME         waits for the notice of an object; "awaited 1", or 0 after a while
#include <map>
#include <memory>
#include <set>

#include "ActorSide.h"
#include "AllocationCount.h"
#include "Station.h"
#include "Waiting.h"

namespace {

using testsupport::answer;

constexpr unsigned int kClass = 0x57A4;
TreflectMetaClass const thingMeta("Starved", kClass, {}, {});

class Thing : public TreflectSkeleton<thingMeta> {
public:
    explicit Thing(std::string const& name)
        : TreflectSkeleton(TipprmiOID(name, NSID_UNIT), nullptr, name) {
        sendCreationEvent(&const_cast<TreflectMetaClass&>(thingMeta));
    }
    ~Thing() override { sendDeletionEvent(&const_cast<TreflectMetaClass&>(thingMeta)); }
};

class Watcher : public TreflectObserver {
public:
    Watcher() : TreflectObserver(TipprmiOID("", NSID_UNIT), nullptr, "") {}
    bool update() override {
        Sated const sated;
        char const* const name = getSource()->getStub_()->getOID().getIdString();
        told_.insert(name ? name : "");
        return true;
    }
    /** With the run permission. */
    bool knows(std::string const& name) const { return told_.count(name) != 0; }

private:
    std::set<std::string> told_;  // guarded by the run permission
};

class Actor {
public:
    void obey(std::string const& verb, std::istringstream& words) {
        std::string name;
        unsigned long n = 0;
        if (verb == "starve") {
            unsigned long more = 0;
            words >> n >> more;
            starve(n, more);
            answer("starving");
        } else if (verb == "feed") {
            answer("fed ", feed());
        } else if (verb == "watch") {
            answer("watched ", attempt([&] {
                       watch();
                       return true;
                   }));
        } else {
            words >> name >> n;
            obey(verb, name, n);
        }
    }

private:
    /** Does what may run out of memory, holding the run permission. False when it does. */
    template <class Act>
    static bool attempt(Act const& act) {
        Sated const hungry(false);
        try {
            TreflectHandlerState const inside(true);
            return act();
        } catch (std::bad_alloc const&) {
            return false;
        }
    }

    void obey(std::string const& verb, std::string const& name, unsigned long n) {
        if (verb == "serve")
            answer("served ", attempt([&] {
                       stations_[name] = std::make_unique<station::Server>(name);
                       return true;
                   }));
        else if (verb == "call")
            answer("called ", attempt([&] { return call(name, n); }));
        else if (verb == "find")
            answer("found ", attempt([&] { return flips(station::Client(name), n); }));
        else if (verb == "make")
            answer("made ", attempt([&] {
                       things_.erase(name);
                       things_[name] = std::make_unique<Thing>(name);
                       return true;
                   }));
        else if (verb == "unmake")
            answer("unmade ", attempt([&] { return things_.erase(name) == 1; }));
        else if (verb == "await")
            answer("awaited ", testsupport::eventually([&] { return told(name); }));
    }

    bool call(std::string const& name, unsigned long size) {
        auto& handle = handles_[name];
        if (!handle || !handle->isConnected())
            handle = std::make_unique<station::Client>(name);
        return flips(*handle, size);
    }
    static bool flips(station::Client const& far, unsigned long size) {
        std::string const text = station::body(size);
        auto const back = tipprmiCall<std::string>(far, station::kClass, station::kFlip, text);
        return back && back.value() == station::flipped(text);
    }
    void watch() {
        if (!watcher_)
            watcher_ = std::make_unique<Watcher>();
        const_cast<TreflectMetaClass&>(thingMeta).observeCreations(watcher_.get(), true);
    }
    bool told(std::string const& name) {
        TreflectHandlerState const inside(true);
        return watcher_ && watcher_->knows(name);
    }

    std::map<std::string, std::unique_ptr<station::Server>> stations_;
    std::map<std::string, std::unique_ptr<station::Client>> handles_;
    std::map<std::string, std::unique_ptr<Thing>> things_;
    std::unique_ptr<Watcher> watcher_;
};

}  // namespace

int main() {
    Sated const sated;
    static Actor& actor = *new Actor;  // its stations outlive exit
    testsupport::obeyLines([](std::string const& verb, std::istringstream& words) {
        actor.obey(verb, words);
        return true;
    });
}
