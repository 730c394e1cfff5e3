#include "reflect/broker/ReflectWorker.h"

#include "reflect/broker/TreflectOrbParts.h"

namespace {

constexpr std::size_t kStackSize = 65536;

thread_local TreflectORB const* served = nullptr;

}  // namespace

ReflectWorker::ReflectWorker(TreflectORB& orb)
    : Thread("ReflectWorker", OSWrap::Priority(3), OSWrap::SchedulingPolicy(0), kStackSize, true),
      orb_(orb) {}

TreflectORB const* ReflectWorker::servedBroker() {
    return served;
}

int ReflectWorker::run() {
    served = &orb_;
    orb_.dispatchEntry();
    return 0;
}
