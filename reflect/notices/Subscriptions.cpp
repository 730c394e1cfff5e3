#include "reflect/notices/Subscriptions.h"

#include <algorithm>

#include "logging/Log.h"
#include "reflect/broker/BrokerRequest.h"
#include "reflect/notices/MetaData.h"

namespace {

/** Of a broker that says that it knows more classes than these nothing is remembered: it is asked
 * for each. */
constexpr unsigned int kMostClasses = 65'536;

// Copies that look for nothing. What one that has gone while it answered had is not news, and
// nobody else says what others have who are there.
void readExisting(TipprmiStream& response, TreflectORB const& orb,
                  Transport::TerminationId const& target, std::vector<TreflectObject>* existing) {
    TipprmiSequence<TreflectObject, 0u> objects;
    response >> objects;
    if (!existing || !exists(target))
        return;
    TreflectOrbId const home = orb.convertId(target);
    for (TreflectObject const& object : objects)
        if (brokerOf(object) == home || !exists(orb.convertId(brokerOf(object))))
            existing->emplace_back().share_(object);
}

}  // namespace

void Subscriptions::beginAtAll(NoticeKind kind, MetaData& record,
                               std::vector<TreflectObject>* existing, Registration* asking) {
    std::list<Transport::TerminationId> targets = membersOfGroup(orb_);
    missed(kind).start(targets);
    for (Transport::TerminationId const& target : targets)
        begin(kind, record, existing, asking, target);
    if (kind == NoticeKind::Deletion)
        countDeletions(record);
}

bool Subscriptions::begin(NoticeKind kind, MetaData& record, std::vector<TreflectObject>* existing,
                          Registration* asking, Transport::TerminationId const& target) {
    if (target == orb_.termId() || !mayServe(target, record.classId))
        return false;
    bool const creations = kind == NoticeKind::Creation;
    BrokerRequest request(
        orb_, creations ? TreflectMessage::tOCNSubscribe : TreflectMessage::tODNSubscribe);
    request.arguments() << record.classId;
    if (creations) {
        request.arguments() << (existing != nullptr);
        record.creationsSubscribed = true;
    }
    if (asking)
        asking->asks(orb_.convertId(target));
    if (!request.sendAheadOfOthers(target))
        return false;
    if (creations)
        readExisting(request.response(), orb_, target, existing);
    bool const readable = !request.response().hasUnmarshallingFailed();
    learnClasses(target, request.response());
    return readable;
}

void Subscriptions::cancelAtAll(NoticeKind kind, unsigned int classId) const {
    for (Transport::TerminationId const& member : membersOfGroup(orb_)) {
        if (member == orb_.termId())
            continue;
        BrokerRequest request(orb_, kind == NoticeKind::Creation
                                        ? TreflectMessage::tOCNUnsubscribe
                                        : TreflectMessage::tODNUnsubscribe);
        request.arguments() << classId;
        if (!request.send(member))
            REFLECTORB_LOG(3, "REFLECT_orb", "could not unregister from 0x%X", member.value());
    }
}

bool Subscriptions::mayServe(Transport::TerminationId const& target, unsigned int classId) const {
    auto const known = knownOrbClasses_.find(target);
    return known == knownOrbClasses_.end() ||
           std::binary_search(known->second.begin(), known->second.end(), classId);
}

void Subscriptions::learnClasses(Transport::TerminationId const& target, TipprmiStream& response) {
    if (knownOrbClasses_.count(target) != 0)
        return;
    TipprmiSequence<unsigned int, 0u> ids;
    response >> ids;
    // One that has gone while it answered has been forgotten already.
    if (response.hasUnmarshallingFailed() || ids.getLength() > kMostClasses || !exists(target))
        return;
    std::vector<unsigned int>& known = knownOrbClasses_[target];
    for (unsigned int i = 0; i < ids.getLength(); ++i)
        known.push_back(ids[i]);
    std::sort(known.begin(), known.end());
}

void Subscriptions::countDeletions(MetaData& record) {
    record.lastDeletionSubscription = ++deletions_;
}

void Subscriptions::add(TreflectOrbId const& broker) {
    missedCreations_.add(broker);
    missedDeletions_.add(broker);
}

void Subscriptions::forget(Transport::TerminationId const& gone) {
    TreflectOrbId const broker = orb_.convertId(gone);
    knownOrbClasses_.erase(gone);
    missedCreations_.forget(broker);
    missedDeletions_.forget(broker);
}
