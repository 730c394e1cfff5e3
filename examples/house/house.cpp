// Serves a house with lamps until its input ends. Its visitor is visitor.cpp.
#include <handler_threads.h>

#include <cstdio>
#include <map>
#include <memory>

#include "House.h"
#include "Lamp.h"

namespace {

class Lamp final : public LampSkeleton {
public:
    Lamp(TreflectObject const& parent, std::string const& name)
        : LampSkeleton(TipprmiOID("house." + name, NSID_UNIT), &parent, name) {
        sendCreationEvent();  // at the end: from here on observers may call
    }
    ~Lamp() override { sendDeletionEvent(); }

    unsigned int getLevel() override { return level_; }
    TipprmiResult<void> setLevel(unsigned int level) override {
        if (level > 100)
            return TipprmiFailure(lamp::kTooBright);
        level_ = level;
        return {};
    }
    Steps getSteps() override { return steps_; }
    void setSteps(Steps const& steps) override { steps_ = steps; }
    unsigned int nextStep() override {
        for (unsigned int const step : steps_) {
            if (step > level_)
                return level_ = step;
        }
        return level_ = 0;
    }
    bool blink(unsigned int times, std::string const& why) override {
        std::printf("%s blinks %u times: %s\n", objectName(), times, why.c_str());
        return times > 0;
    }

private:
    // All of an object is guarded by the run permission: it needs no locks.
    unsigned int level_ = 10;
    Steps steps_;
};

class House final : public HouseSkeleton {
public:
    House() : HouseSkeleton(house::id(), nullptr, house::kName) {}

    TipprmiResult<TreflectObject> addLamp(std::string const& name) override {
        if (name.empty() || name.find('/') != std::string::npos)
            return TipprmiFailure(house::kBadName);
        auto const [place, isNew] = lamps_.try_emplace(name);
        if (!isNew)
            return TipprmiFailure(house::kNameTaken);
        // A lamp is announced when it is made, which gives the run permission up: another call may
        // come in meanwhile and find the place without a lamp.
        place->second = std::make_unique<Lamp>(*getClient(), name);
        return *place->second->getClient();
    }
    bool removeLamp(std::string const& name) override {
        auto const found = lamps_.find(name);
        if (found == lamps_.end() || !found->second)
            return false;
        std::unique_ptr<Lamp> const lamp = std::move(found->second);
        lamps_.erase(found);  // first: the end of a lamp gives the permission up as well
        return true;
    }

private:
    std::map<std::string, std::unique_ptr<Lamp>> lamps_;
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
    return 0;
}
