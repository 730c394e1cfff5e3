// Generated from home.idl by reflectorb-idl: change that file, not this one.
#include "home.h"

bool LampSkeleton::dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                            TipprmiStream& out) {
    switch (mc) {
        case lamp::kGetLevel:
            return serve(lamp::kClass, cc, mc, in, out, &LampSkeleton::getLevel);
        case lamp::kSetLevel:
            return serve(lamp::kClass, cc, mc, in, out, &LampSkeleton::setLevel);
        case lamp::kGetSteps:
            return serve(lamp::kClass, cc, mc, in, out, &LampSkeleton::getSteps);
        case lamp::kSetSteps:
            return serve(lamp::kClass, cc, mc, in, out, &LampSkeleton::setSteps);
        case lamp::kNextStep:
            return serve(lamp::kClass, cc, mc, in, out, &LampSkeleton::nextStep);
        case lamp::kBlink:
            return serve(lamp::kClass, cc, mc, in, out, &LampSkeleton::blink);
        default:
            return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
}

TipprmiResult<unsigned int> LampClient::getLevel() const {
    return treflectCall(*this, lamp::kClass, lamp::kGetLevel, &LampSkeleton::getLevel);
}

TipprmiOutcome<void, lamp::TooBright> LampClient::setLevel(unsigned int level) const {
    return treflectCall(*this, lamp::kClass, lamp::kSetLevel, &LampSkeleton::setLevel, level);
}

TipprmiResult<lamp::Steps> LampClient::getSteps() const {
    return treflectCall(*this, lamp::kClass, lamp::kGetSteps, &LampSkeleton::getSteps);
}

TipprmiResult<void> LampClient::setSteps(lamp::Steps const& steps) const {
    return treflectCall(*this, lamp::kClass, lamp::kSetSteps, &LampSkeleton::setSteps, steps);
}

TipprmiResult<unsigned int> LampClient::nextStep() const {
    return treflectCall(*this, lamp::kClass, lamp::kNextStep, &LampSkeleton::nextStep);
}

TipprmiResult<bool> LampClient::blink(unsigned int times, std::string const& why) const {
    return treflectCall(*this, lamp::kClass, lamp::kBlink, &LampSkeleton::blink, times, why);
}

namespace lamp {

TipprmiStream& operator<<(TipprmiStream& stream, TooBright const& value) {
    return stream << value.limit;
}

TipprmiStream& operator>>(TipprmiStream& stream, TooBright& value) {
    return stream >> value.limit;
}

}  // namespace lamp

bool HouseSkeleton::dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                             TipprmiStream& out) {
    switch (mc) {
        case house::kAddLamp:
            return serve(house::kClass, cc, mc, in, out, &HouseSkeleton::addLamp);
        case house::kRemoveLamp:
            return serve(house::kClass, cc, mc, in, out, &HouseSkeleton::removeLamp);
        default:
            return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
}

TipprmiOutcome<LampClient, house::BadName, house::NoPlace> HouseClient::addLamp(
    std::string const& name) const {
    return treflectCall(*this, house::kClass, house::kAddLamp, &HouseSkeleton::addLamp, name);
}

TipprmiResult<bool> HouseClient::removeLamp(std::string const& name) const {
    return treflectCall(*this, house::kClass, house::kRemoveLamp, &HouseSkeleton::removeLamp, name);
}

namespace house {

TipprmiStream& operator<<(TipprmiStream& stream, BadName const&) {
    return stream;
}

TipprmiStream& operator>>(TipprmiStream& stream, BadName&) {
    return stream;
}

TipprmiStream& operator<<(TipprmiStream& stream, NoPlace const&) {
    return stream;
}

TipprmiStream& operator>>(TipprmiStream& stream, NoPlace&) {
    return stream;
}

}  // namespace house
