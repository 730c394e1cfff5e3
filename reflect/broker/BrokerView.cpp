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

std::vector<BrokerView::ClassObservers> BrokerView::classObservers() const {
    std::vector<ClassObservers> all;
    for (auto const& [classId, record] : orb_->parts_->classes) {
        TreflectORB::MetaData const& known = record;
        all.push_back({classId,
                       known.creations.observers.size(),
                       known.deletions.observers.size(),
                       {known.creations.subscribers.begin(), known.creations.subscribers.end()},
                       {known.deletions.subscribers.begin(), known.deletions.subscribers.end()}});
    }
    return all;
}
