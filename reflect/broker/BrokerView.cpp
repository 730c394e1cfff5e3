#include "reflect/broker/BrokerView.h"

#include "reflect/broker/TreflectOrbParts.h"

std::vector<BrokerView> BrokerView::all() {
    std::vector<BrokerView> brokers;
    for (auto const& instance : TreflectORB::singletonInstances_) {
        if (TreflectORB* const orb = instance.load(std::memory_order_acquire))
            brokers.push_back(BrokerView(*orb));
    }
    return brokers;
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
