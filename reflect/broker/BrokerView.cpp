#include "reflect/broker/BrokerView.h"

#include <algorithm>
#include <iterator>

#include "reflect/broker/TreflectOrbParts.h"

std::vector<BrokerView> BrokerView::all() {
    std::vector<BrokerView> brokers;
    for (auto const& instance : TreflectORB::singletonInstances_) {
        if (TreflectORB* const orb = instance.load())
            brokers.push_back(BrokerView(*orb));
    }
    return brokers;
}

bool BrokerView::isThere(TreflectORB const& orb) {
    auto const& instances = TreflectORB::singletonInstances_;
    return std::any_of(std::begin(instances), std::end(instances),
                       [&orb](auto const& instance) { return instance.load() == &orb; });
}

std::vector<TipprmiObjectSkeleton*> BrokerView::objects() const {
    return orb_->parts_->objects.all();
}

std::size_t BrokerView::objectCount() const {
    return orb_->parts_->objects.size();
}

PerformanceCounters::Records BrokerView::counters() const {
    orb_->parts_->returnedCalls.moveTo(orb_->parts_->counters);
    return orb_->parts_->counters.all();
}

std::vector<OngoingRequest::Glimpse> BrokerView::requests() const {
    return orb_->parts_->ongoingRequests_.glimpse();
}

std::vector<ClassRecords::Observers> BrokerView::classObservers() const {
    return orb_->parts_->classes.observers();
}
