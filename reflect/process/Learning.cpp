#include "reflect/process/Learning.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "ipprmi/TipprmiCall.h"
#include "logging/Log.h"
#include "oswrap/Immortal.h"
#include "reflect/InterfaceRepository.h"
#include "reflect/TreflectORB.h"
#include "reflect/TreflectProcessObject.h"
#include "reflect/broker/BrokerRequest.h"

namespace {

constexpr char kSource[] = "TreflectLearning";
constexpr char kTooMuch[] = "too much has been learned already";
constexpr std::size_t kMostDescriptions = 256;
// A base counts once for each way that leads to it, as often as it is looked at.
constexpr std::size_t kMostPaths = 4096;        // from a class to its bases
constexpr std::size_t kMostMembers = 1 << 16;   // of a class with its bases
constexpr std::size_t kMostSearches = 1 << 22;  // for the operations of all attributes
constexpr std::size_t kMostLinesOfDifference = 40;

std::atomic<bool> isOn{false};

/** An answer that is read only if it is not too large; `size` tells that it is. */
struct Answer {
    Learning::Descriptions descriptions;
    std::size_t size = 0;
};
TipprmiStream& operator>>(TipprmiStream& stream, Answer& answer) {
    answer.size = static_cast<std::size_t>(stream.getUnreadSize());
    return answer.size <= Learning::kLargestAnswer ? stream >> answer.descriptions : stream;
}

/** The class as this process itself knows it; null unless that is the same. */
TreflectMetaClass* knownHere(unsigned int classId, std::uint64_t hash) {
    auto* const known =
        dynamic_cast<TreflectMetaClass*>(InterfaceRepository::instance()->findInterface_(classId));
    return known && TreflectClassDescription::of(*known).hash == hash ? known : nullptr;
}

bool isThere(TreflectOrbId broker) {
    TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT);
    return orb && exists(orb->convertId(broker));
}

}  // namespace

void TreflectMetaClass::learn(bool on) {
    if (on)
        TreflectProcessObject::metaClass();
    isOn = on;
}

bool TreflectMetaClass::learns() {
    return isOn;
}

/** One answer on its way into the classes that are learned. */
class Learning::Admission {
public:
    Admission(Learning& learning, TreflectOrbId broker, Descriptions const& descriptions,
              std::size_t size)
        : learning_(learning), broker_(broker), count_(descriptions.size()), size_(size) {
        for (TreflectClassDescription const& description : descriptions)
            byId_.emplace(description.id, &description);
    }

    /** What is wrong; empty without a fault. */
    std::string fault(unsigned int classId) OSW_REQUIRES_PERMISSION;
    /** Makes a meta object of each class that is new. An exception leaves what has been learned as
     * it was. */
    void build() OSW_REQUIRES_PERMISSION;
    TreflectMetaClass* meta(unsigned int classId) const { return metas_.at(classId); }
    /** Those of the classes that this process does not know itself. */
    std::map<unsigned int, LearnedClass*> const& learned() const { return learned_; }

private:
    using Description = TreflectClassDescription;
    /** How much there is to go through from a class up. */
    struct Reach {
        std::size_t paths = 0;    // to itself and its bases; 0 while they are being checked
        std::size_t members = 0;  // on all paths
    };
    struct Checked {
        Reach reach;
        std::size_t expanded = 0;  // of its types
    };

    std::string faultOf(Description const& description) OSW_REQUIRES_PERMISSION;
    std::string faultOfBases(Description const& description, Reach& reach) OSW_REQUIRES_PERMISSION;
    std::string faultOfReach(Description const& description, Reach const& reach);
    bool isAnother(Description const& description) const OSW_REQUIRES_PERMISSION;
    bool addToAmount(Description const& description, std::size_t expanded) OSW_REQUIRES_PERMISSION;
    std::size_t variantsOf(unsigned int classId) const OSW_REQUIRES_PERMISSION;
    LearnedClass* learnedBefore(unsigned int classId,
                                std::uint64_t hash) const OSW_REQUIRES_PERMISSION;
    bool findKnown(Description const& description) OSW_REQUIRES_PERMISSION;
    TreflectMetaClass* metaOf(unsigned int classId) OSW_REQUIRES_PERMISSION;
    LearnedClass* learn(Description const& description) OSW_REQUIRES_PERMISSION;
    void tellDifferences(Description const& description) OSW_REQUIRES_PERMISSION;
    void tellDifference(Description const& former, std::string const& teller,
                        Description const& latter);

    Learning& learning_;
    TreflectOrbId const broker_;
    std::size_t const count_;
    std::size_t const size_;  // of the encoding
    std::map<unsigned int, Description const*> byId_;
    std::map<unsigned int, Checked> checked_;
    std::size_t searches_ = 0;
    Amount amount_;  // with what is new here
    std::map<unsigned int, TreflectMetaClass*> metas_;
    std::map<unsigned int, LearnedClass*> learned_;
    Classes fresh_;  // still this one's own
};

std::string Learning::Admission::fault(unsigned int classId) {
    if (count_ > kMostDescriptions || byId_.size() != count_)
        return "too many classes, or one of them twice";
    if (byId_.count(classId) == 0)
        return "it is not among what was told";
    amount_ = learning_.learned();
    for (auto const& [id, description] : byId_) {
        std::string const fault = faultOf(*description);
        if (!fault.empty())
            return "of class " + std::to_string(id) + ", " + fault;
    }
    return {};
}

/** With its bases, so that what is learned has all of them and is none of its own. */
std::string Learning::Admission::faultOf(Description const& description) {
    auto const [checked, isNew] = checked_.emplace(description.id, Checked());
    Checked& kept = checked->second;
    if (!isNew)
        return kept.reach.paths != 0 ? "" : "it is a base of itself";
    if (std::string const fault = description.fault(kept.expanded); !fault.empty())
        return fault;
    if (isAnother(description))
        return "its hash is that of another one";
    if (!findKnown(description) && !addToAmount(description, kept.expanded))
        return kTooMuch;
    Reach reach{1, description.operations.size() + description.attributes.size()};
    if (std::string const fault = faultOfBases(description, reach); !fault.empty())
        return fault;
    if (std::string const fault = faultOfReach(description, reach); !fault.empty())
        return fault;
    kept.reach = reach;
    return {};
}

std::string Learning::Admission::faultOfBases(Description const& description, Reach& reach) {
    for (Description::Base const& base : description.bases) {
        auto const told = byId_.find(base.id);
        if (told == byId_.end() || told->second->hash != base.hash)
            return "a base is missing";
        if (std::string const fault = faultOf(*told->second); !fault.empty())
            return fault;
        reach.paths += checked_.at(base.id).reach.paths;
        reach.members += checked_.at(base.id).reach.members;
    }
    return {};
}

std::string Learning::Admission::faultOfReach(Description const& description, Reach const& reach) {
    searches_ += description.attributes.size() * reach.paths;
    bool const isTooFar =
        reach.paths > kMostPaths || reach.members > kMostMembers || searches_ > kMostSearches;
    return isTooFar ? "its bases are too entangled" : "";
}

bool Learning::Admission::isAnother(Description const& description) const {
    auto const same = learning_.classes_.find({description.id, description.hash});
    return same != learning_.classes_.end() &&
           same->second.meta->described().outline() != description.outline();
}

/** False when there is no room for it: the rest of the answer need not be looked at then. */
bool Learning::Admission::addToAmount(Description const& description, std::size_t expanded) {
    ++amount_.classes;
    amount_.expanded += expanded;
    return amount_.classes <= kMostClasses && amount_.expanded <= kMostExpanded &&
           amount_.bytes + size_ <= kMostBytes && variantsOf(description.id) < kMostVariants;
}

std::size_t Learning::Admission::variantsOf(unsigned int classId) const {
    auto const first = learning_.classes_.lower_bound({classId, 0});
    auto const last = learning_.classes_.upper_bound({classId, ~std::uint64_t{0}});
    return static_cast<std::size_t>(std::count_if(
        first, last, [](auto const& learned) { return learned.second.meta->isWhole(); }));
}

/** One that has lost a base, whose shared object was closed, is known no more. */
LearnedClass* Learning::Admission::learnedBefore(unsigned int classId, std::uint64_t hash) const {
    auto const [first, last] = learning_.classes_.equal_range({classId, hash});
    auto const whole = std::find_if(
        first, last, [](auto const& learned) { return learned.second.meta->isWhole(); });
    return whole == last ? nullptr : whole->second.meta.get();
}

/** Of a class that this process knows, the meta object is at hand from now on. */
bool Learning::Admission::findKnown(Description const& description) {
    TreflectMetaClass* known = knownHere(description.id, description.hash);
    if (!known) {
        LearnedClass* const before = learnedBefore(description.id, description.hash);
        if (before)
            learned_[description.id] = before;
        known = before;
    }
    if (known)
        metas_[description.id] = known;
    return known;
}

void Learning::Admission::build() {
    for (auto const& told : byId_)
        metaOf(told.first);
    auto const find = [this](unsigned int classId) -> TreflectMetaObject* {
        auto const found = metas_.find(classId);
        return found != metas_.end() ? found->second
                                     : InterfaceRepository::instance()->findInterface_(classId);
    };
    for (auto& [key, fresh] : fresh_) {
        fresh.meta->setValueClasses(find);
        fresh.bytes = size_ / fresh_.size() + 1;
    }
    learning_.classes_.merge(fresh_);
}

TreflectMetaClass* Learning::Admission::metaOf(unsigned int classId) {
    TreflectMetaClass*& meta = metas_[classId];
    if (!meta)
        meta = learned_[classId] = learn(*byId_.at(classId));
    return meta;
}

LearnedClass* Learning::Admission::learn(Description const& description) {
    std::vector<TreflectMetaClass const*> bases;
    for (Description::Base const& base : description.bases)
        bases.push_back(metaOf(base.id));
    tellDifferences(description);
    Learned learned{std::make_unique<LearnedClass>(description, bases), broker_, 0,
                    checked_.at(description.id).expanded};
    return fresh_.emplace(Key(description.id, description.hash), std::move(learned))
        ->second.meta.get();
}

/** From what this process knows by itself, and from one of those that it has learned. */
void Learning::Admission::tellDifferences(Description const& description) {
    if (TreflectMetaObject const* const here =
            InterfaceRepository::instance()->findInterface_(description.id))
        tellDifference(Description::of(*here), "this process", description);
    auto const other = learning_.classes_.lower_bound({description.id, 0});
    if (other == learning_.classes_.end() || other->first.first != description.id)
        return;
    char teller[32];
    std::snprintf(teller, sizeof teller, "broker 0x%08X", other->second.teller.value());
    tellDifference(other->second.meta->described(), teller, description);
}

void Learning::Admission::tellDifference(Description const& former, std::string const& teller,
                                         Description const& latter) {
    unsigned long heldBack = 0;
    if (former.hash == latter.hash || !Logging::enabled(4) ||
        !learning_.differences_.pass(heldBack))
        return;
    REFLECTORB_LOG(4, kSource, "class 0x%X \"%s\" of broker 0x%08X is not that of %s", latter.id,
                   latter.name.c_str(), broker_.value(), teller.c_str());
    Logging::tellHeldBack(heldBack, 4, __LINE__, kSource);
    std::vector<std::string> const lines = Description::difference(former, latter);
    for (std::size_t i = 0; i < std::min(lines.size(), kMostLinesOfDifference); ++i)
        REFLECTORB_LOG(5, kSource, "    %s", lines[i].c_str());
}

// ---- The classes --------------------------------------------------------------------------------

Learning& Learning::instance() {
    static OSWrap::Immortal<Learning> learning;
    return *learning;
}

TreflectMetaObject* Learning::find(unsigned int classId, TreflectOrbId broker) {
    OfBroker const wanted(broker, classId);
    if (auto const known = uses_.find(wanted); known != uses_.end() && known->second->isWhole())
        return known->second;
    if (refused_.count(wanted) != 0)
        return nullptr;
    TreflectProcessClient const process = TreflectProcessClient::of(broker);
    if (!process.isConnected())
        return nullptr;
    TipprmiResult<Answer> const answer =
        tipprmiCall<Answer>(process, processobject::kClass, processobject::kDescribe, classId);
    if (!isThere(broker))
        return nullptr;  // gone meanwhile, and forgotten
    if (answer)
        return admit(classId, broker, answer.value().descriptions, answer.value().size);
    if (answer.code() == TipprmiFailure::kUnreadable)
        refuse(wanted, "the answer is unreadable");
    return nullptr;
}

TreflectMetaObject* Learning::admit(unsigned int classId, TreflectOrbId broker,
                                    Descriptions const& descriptions, std::size_t size) {
    OfBroker const wanted(broker, classId);
    Admission admission(*this, broker, descriptions, size);
    std::string const fault = size > kLargestAnswer ? "it is too large" : admission.fault(classId);
    if (!fault.empty()) {
        refuse(wanted, fault);
        return nullptr;
    }
    admission.build();
    if (uses_.size() > kMostUses)
        uses_.clear();
    for (auto const& [id, meta] : admission.learned())
        uses_[{broker, id}] = meta;
    return admission.meta(classId);
}

Learning::Amount Learning::learned() const {
    Amount amount;
    for (auto const& [key, each] : classes_) {
        if (!each.meta->isWhole())
            continue;
        ++amount.classes;
        amount.bytes += each.bytes;
        amount.expanded += each.expanded;
    }
    return amount;
}

void Learning::refuse(OfBroker const& wanted, std::string const& fault) {
    REFLECTORB_LOG_LIMITED(refusals_, 3, kSource,
                           "class 0x%X as broker 0x%08X describes it is refused: %s", wanted.second,
                           wanted.first.value(), fault.c_str());
    if (refused_.size() > kMostUses)
        refused_.clear();
    refused_.insert(wanted);
}

void Learning::forget(TreflectOrbId broker) {
    OfBroker const first(broker, 0);
    OfBroker const last(broker, ~0u);
    uses_.erase(uses_.lower_bound(first), uses_.upper_bound(last));
    refused_.erase(refused_.lower_bound(first), refused_.upper_bound(last));
}
