// Serves a house with lamps until its input ends. Its visitor is visitor.cpp.
#include <handler_threads.h>

#include <cstdio>
#include <map>
#include <memory>
#include <utility>

#include "home.h"

namespace {

class Lamp final : public LampSkeleton {
public:
    Lamp(TreflectObject const& parent, std::string const& name)
        : LampSkeleton(TipprmiOID("house." + name, NSID_UNIT), &parent, name) {}
    ~Lamp() override { sendDeletionEvent(); }  // first: all of the lamp is still there

    unsigned int getLevel() override { return level_; }
    TipprmiOutcome<void, lamp::TooBright> setLevel(unsigned int level) override {
        if (level > kBrightest)
            return lamp::TooBright{kBrightest};
        level_ = level;
        return {};
    }
    lamp::Steps getSteps() override { return steps_; }
    void setSteps(lamp::Steps const& steps) override { steps_ = steps; }
    unsigned int nextStep() override {
        unsigned int const next = stepAbove(level_);
        level_ = next;
        // Gives the permission up while others are told: the lamp may be removed meanwhile.
        changed("Level");
        return next;
    }
    bool blink(unsigned int times, std::string const& why) override {
        std::printf("%s blinks %u times: %s\n", objectName(), times, why.c_str());
        return times > 0;
    }

private:
    static constexpr unsigned int kBrightest = 100;

    unsigned int stepAbove(unsigned int level) const {
        for (unsigned int const step : steps_) {
            if (step > level)
                return step;
        }
        return 0;
    }

    // All of an object is guarded by the run permission: it needs no locks.
    unsigned int level_ = 10;
    lamp::Steps steps_;
};

class House final : public HouseSkeleton {
public:
    House() : HouseSkeleton(TipprmiOID(house::name, NSID_UNIT), nullptr, house::name) {}
    /** The end of all lamps. */
    void close() {
        // Each end gives the permission up. Calls that come in meanwhile find a house in order,
        // without lamps, and add none.
        isClosed_ = true;
        Lamps const gone = std::exchange(lamps_, {});
    }

    TipprmiOutcome<LampClient, house::BadName, house::NoPlace> addLamp(
        std::string const& name) override {
        if (name.empty() || name.find('/') != std::string::npos)
            return house::BadName{};
        if (isClosed_ || lamps_.count(name) != 0)
            return house::NoPlace{};
        auto const lamp = std::make_shared<Lamp>(*getClient(), name);
        lamps_[name] = lamp;
        // Gives the permission up: the lamp may be removed meanwhile.
        lamp->sendCreationEvent();
        return lamp->getClient()->as<LampClient>();
    }
    bool removeLamp(std::string const& name) override {
        // Out of the map first: the end of a lamp gives the permission up as well.
        return !lamps_.extract(name).empty();
    }

private:
    using Lamps = std::map<std::string, std::shared_ptr<Lamp>>;

    Lamps lamps_;
    bool isClosed_ = false;
};

}  // namespace

int main() {
    TreflectHandlerState const inside(true);  // objects are made and destroyed under the permission
    House house;
    house.addLamp("hall");
    {
        TreflectReleaseHandlerState const outside;  // while we wait, calls may come in
        std::puts("serving, press Enter to end");
        std::fflush(stdout);
        std::getchar();
    }
    house.close();            // while others can still be told
    prepareOrbForDeletion();  // calls that are being served are waited for, no more come in
    return 0;
}
