#include "reflect/ReflectWorker.h"

#include <utility>

#include "reflect/TreflectOrbParts.h"

namespace {

constexpr std::size_t kStackSize = 65536;

thread_local TreflectORB const* served = nullptr;

}  // namespace

ReflectWorker::ReflectWorker(std::shared_ptr<TreflectORB> orb)
    : Thread("ReflectWorker", OSWrap::Priority(3), OSWrap::SchedulingPolicy(0), kStackSize, true),
      orb_(std::move(orb)) {}

TreflectORB const* ReflectWorker::servedBroker() {
    return served;
}

int ReflectWorker::run() {
    served = orb_.get();
    orb_->dispatchEntry();
    return 0;
}
