#include "reflect/process/Learning.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <iterator>

#include "ipprmi/TipprmiCall.h"
#include "logging/Log.h"
#include "oswrap/Immortal.h"
#include "reflect/InterfaceRepository.h"
#include "reflect/TreflectProcessObject.h"

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
    Admission(Learning& learning, TreflectOrbId broker, Descriptions const& descriptions)
        : learning_(learning), broker_(broker), count_(descriptions.size()) {
        for (TreflectClassDescription const& description : descriptions)
            byId_.emplace(description.id, &description);
    }

    /** What is wrong; empty without a fault. */
    std::string fault(unsigned int classId) OSW_REQUIRES_PERMISSION;
    /** Makes a meta object of each class that is new; whether there were any. An exception leaves
     * what has been learned as it was. */
    bool build() OSW_REQUIRES_PERMISSION;
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

    std::string faultOf(Description const& description) OSW_REQUIRES_PERMISSION;
    std::string faultOfBases(Description const& description, Reach& reach) OSW_REQUIRES_PERMISSION;
    bool isBeyondBounds() const OSW_REQUIRES_PERMISSION;
    std::size_t variantsOf(unsigned int classId) const OSW_REQUIRES_PERMISSION;
    LearnedClass* learnedBefore(unsigned int classId,
                                std::uint64_t hash) const OSW_REQUIRES_PERMISSION;
    bool isKnown(Description const& description) const OSW_REQUIRES_PERMISSION;
    TreflectMetaClass* metaOf(unsigned int classId, std::uint64_t hash) OSW_REQUIRES_PERMISSION;
    LearnedClass* learn(Description const& description) OSW_REQUIRES_PERMISSION;
    void tellDifferences(Description const& description) OSW_REQUIRES_PERMISSION;
    void tellDifference(Description const& former, std::string const& teller,
                        Description const& latter);

    Learning& learning_;
    TreflectOrbId const broker_;
    std::size_t const count_;
    std::map<unsigned int, Description const*> byId_;
    std::map<unsigned int, Reach> checked_;
    std::size_t searches_ = 0;
    std::map<unsigned int, TreflectMetaClass*> metas_;
    std::map<unsigned int, LearnedClass*> learned_;
    Classes fresh_;  // still this one's own
};

std::string Learning::Admission::fault(unsigned int classId) {
    if (count_ > kMostDescriptions || byId_.size() != count_)
        return "too many classes, or one of them twice";
    if (byId_.count(classId) == 0)
        return "it is not among what was told";
    for (auto const& [id, description] : byId_) {
        std::string const fault = faultOf(*description);
        if (!fault.empty())
            return "of class " + std::to_string(id) + ", " + fault;
    }
    return isBeyondBounds() ? kTooMuch : "";
}

/** Bases are checked first, so that what is learned has all of them and is none of its own. */
std::string Learning::Admission::faultOf(Description const& description) {
    auto const [checked, isNew] = checked_.emplace(description.id, Reach());
    if (!isNew)
        return checked->second.paths != 0 ? "" : "it is a base of itself";
    if (std::string const fault = description.fault(); !fault.empty())
        return fault;
    Reach reach{1, description.operations.size() + description.attributes.size()};
    if (std::string const fault = faultOfBases(description, reach); !fault.empty())
        return fault;
    searches_ += description.attributes.size() * reach.paths;
    if (reach.paths > kMostPaths || reach.members > kMostMembers || searches_ > kMostSearches)
        return "its bases are too entangled";
    auto const same = learning_.classes_.find({description.id, description.hash});
    if (same != learning_.classes_.end() &&
        same->second.meta->described().outline() != description.outline())
        return "its hash is that of another one";
    checked->second = reach;
    return {};
}

std::string Learning::Admission::faultOfBases(Description const& description, Reach& reach) {
    for (Description::Base const& base : description.bases) {
        auto const told = byId_.find(base.id);
        if (told == byId_.end() || told->second->hash != base.hash)
            return "a base is missing";
        if (std::string const fault = faultOf(*told->second); !fault.empty())
            return fault;
        reach.paths += checked_.at(base.id).paths;
        reach.members += checked_.at(base.id).members;
    }
    return {};
}

bool Learning::Admission::isBeyondBounds() const {
    std::size_t added = 0;
    std::size_t expanded = learning_.expanded_;
    for (auto const& [id, description] : byId_) {
        if (isKnown(*description))
            continue;
        ++added;
        expanded += description->expandedTypes();
        if (variantsOf(id) >= kMostVariants)
            return true;
    }
    return expanded > kMostExpanded || learning_.classes_.size() + added > kMostClasses;
}

std::size_t Learning::Admission::variantsOf(unsigned int classId) const {
    auto const first = learning_.classes_.lower_bound({classId, 0});
    auto const last = learning_.classes_.upper_bound({classId, ~std::uint64_t{0}});
    return static_cast<std::size_t>(std::distance(first, last));
}

/** One that has lost a base, whose shared object was closed, is known no more. */
LearnedClass* Learning::Admission::learnedBefore(unsigned int classId, std::uint64_t hash) const {
    auto const [first, last] = learning_.classes_.equal_range({classId, hash});
    auto const whole = std::find_if(
        first, last, [](auto const& learned) { return learned.second.meta->isWhole(); });
    return whole == last ? nullptr : whole->second.meta.get();
}

bool Learning::Admission::isKnown(Description const& description) const {
    return knownHere(description.id, description.hash) ||
           learnedBefore(description.id, description.hash);
}

bool Learning::Admission::build() {
    for (auto const& [id, description] : byId_)
        metaOf(id, description->hash);
    auto const find = [this](unsigned int classId) -> TreflectMetaObject* {
        auto const found = metas_.find(classId);
        return found != metas_.end() ? found->second
                                     : InterfaceRepository::instance()->findInterface_(classId);
    };
    for (auto const& fresh : fresh_)
        fresh.second.meta->setValueClasses(find);
    bool const isAnyNew = !fresh_.empty();
    for (auto const& fresh : fresh_)
        learning_.expanded_ += fresh.second.meta->described().expandedTypes();
    learning_.classes_.merge(fresh_);
    return isAnyNew;
}

TreflectMetaClass* Learning::Admission::metaOf(unsigned int classId, std::uint64_t hash) {
    TreflectMetaClass*& meta = metas_[classId];
    if (!meta)
        meta = knownHere(classId, hash);
    if (!meta) {
        LearnedClass* const before = learnedBefore(classId, hash);
        meta = learned_[classId] = before ? before : learn(*byId_.at(classId));
    }
    return meta;
}

LearnedClass* Learning::Admission::learn(Description const& description) {
    std::vector<TreflectMetaClass const*> bases;
    for (Description::Base const& base : description.bases)
        bases.push_back(metaOf(base.id, base.hash));
    tellDifferences(description);
    Learned learned{std::make_unique<LearnedClass>(description, bases), broker_};
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
    if (answer)
        return admit(classId, broker, answer.value().descriptions, answer.value().size);
    if (answer.code() == TipprmiFailure::kUnreadable)
        refuse(wanted, "the answer is unreadable");
    return nullptr;
}

TreflectMetaObject* Learning::admit(unsigned int classId, TreflectOrbId broker,
                                    Descriptions const& descriptions, std::size_t size) {
    OfBroker const wanted(broker, classId);
    Admission admission(*this, broker, descriptions);
    std::string fault = size > kLargestAnswer ? "it is too large" : admission.fault(classId);
    if (fault.empty() && bytes_ + size > kMostBytes)
        fault = kTooMuch;
    if (!fault.empty()) {
        refuse(wanted, fault);
        return nullptr;
    }
    if (admission.build())
        bytes_ += size;
    if (uses_.size() > kMostUses)
        uses_.clear();
    for (auto const& [id, meta] : admission.learned())
        uses_[{broker, id}] = meta;
    return admission.meta(classId);
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
