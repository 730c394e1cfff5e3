#include "reflect/process/Learning.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <iterator>

#include "ipprmi/TipprmiCall.h"
#include "logging/LineLimit.h"
#include "logging/Log.h"
#include "oswrap/Immortal.h"
#include "reflect/InterfaceRepository.h"
#include "reflect/TreflectProcessObject.h"

namespace {

constexpr char kSource[] = "TreflectLearning";
constexpr int kLargestAnswer = 1 << 20;
constexpr std::size_t kMostDescriptions = 256;
constexpr std::size_t kMostLinesOfDifference = 40;

std::atomic<bool> isOn{false};

// Other processes cause them at will.
Logging::LineLimit refused;
Logging::LineLimit different;

/** An answer that is read only if it is not too large. */
struct Answer {
    Learning::Descriptions descriptions;
    std::size_t size = 0;
};
TipprmiStream& operator>>(TipprmiStream& stream, Answer& answer) {
    answer.size = static_cast<std::size_t>(stream.getUnreadSize());
    if (answer.size <= kLargestAnswer)
        return stream >> answer.descriptions;
    stream.stopUnmarshalling();
    return stream;
}

/** The class as this process itself knows it; null unless that is the same. */
TreflectMetaClass* knownHere(unsigned int classId, std::uint64_t hash) {
    auto* const known =
        dynamic_cast<TreflectMetaClass*>(InterfaceRepository::instance()->findInterface_(classId));
    return known && TreflectClassDescription::of(*known).hash == hash ? known : nullptr;
}

void tellDifference(TreflectClassDescription const& former, std::string const& teller,
                    TreflectClassDescription const& latter, TreflectOrbId broker) {
    unsigned long heldBack = 0;
    if (former.hash == latter.hash || !Logging::enabled(4) || !different.pass(heldBack))
        return;
    REFLECTORB_LOG(4, kSource, "class 0x%X \"%s\" of broker 0x%08X is not that of %s", latter.id,
                   latter.name.c_str(), broker.value(), teller.c_str());
    Logging::tellHeldBack(heldBack, 4, __LINE__, kSource);
    std::vector<std::string> const lines = TreflectClassDescription::difference(former, latter);
    for (std::size_t i = 0; i < std::min(lines.size(), kMostLinesOfDifference); ++i)
        REFLECTORB_LOG(5, kSource, "    %s", lines[i].c_str());
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
    /** Makes a meta object of each class that is new; whether there were any. */
    bool build() OSW_REQUIRES_PERMISSION;
    std::map<unsigned int, TreflectMetaClass*> const& metas() const { return metas_; }

private:
    using Description = TreflectClassDescription;

    std::string faultOf(Description const& description) OSW_REQUIRES_PERMISSION;
    std::string faultOfBases(Description const& description) OSW_REQUIRES_PERMISSION;
    bool isBeyondBounds() const OSW_REQUIRES_PERMISSION;
    std::size_t variantsOf(unsigned int classId) const OSW_REQUIRES_PERMISSION;
    TreflectMetaClass* known(unsigned int classId,
                             std::uint64_t hash) const OSW_REQUIRES_PERMISSION;
    TreflectMetaClass* metaOf(unsigned int classId, std::uint64_t hash) OSW_REQUIRES_PERMISSION;
    TreflectMetaClass* learn(Description const& description) OSW_REQUIRES_PERMISSION;
    void tellDifferences(Description const& description) OSW_REQUIRES_PERMISSION;

    Learning& learning_;
    TreflectOrbId const broker_;
    std::size_t const count_;
    std::map<unsigned int, Description const*> byId_;
    enum class Progress { Begun, Done };
    std::map<unsigned int, Progress> checked_;
    std::map<unsigned int, TreflectMetaClass*> metas_;
    std::vector<LearnedClass*> fresh_;
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
    return isBeyondBounds() ? "too much has been learned already" : "";
}

/** Bases are checked first, so that what is learned has all of them and is none of its own. */
std::string Learning::Admission::faultOf(Description const& description) {
    auto const [progress, isNew] = checked_.emplace(description.id, Progress::Begun);
    if (!isNew)
        return progress->second == Progress::Done ? "" : "it is a base of itself";
    if (std::string const fault = description.fault(); !fault.empty())
        return fault;
    if (std::string const fault = faultOfBases(description); !fault.empty())
        return fault;
    auto const same = learning_.classes_.find({description.id, description.hash});
    if (same != learning_.classes_.end() &&
        same->second.meta->described().outline() != description.outline())
        return "its hash is that of another one";
    progress->second = Progress::Done;
    return {};
}

std::string Learning::Admission::faultOfBases(Description const& description) {
    for (Description::Base const& base : description.bases) {
        auto const told = byId_.find(base.id);
        if (told == byId_.end() || told->second->hash != base.hash)
            return "a base is missing";
        if (std::string const fault = faultOf(*told->second); !fault.empty())
            return fault;
    }
    return {};
}

bool Learning::Admission::isBeyondBounds() const {
    std::size_t added = 0;
    for (auto const& [id, description] : byId_) {
        if (known(id, description->hash))
            continue;
        ++added;
        if (variantsOf(id) >= kMostVariants)
            return true;
    }
    return learning_.classes_.size() + added > kMostClasses;
}

std::size_t Learning::Admission::variantsOf(unsigned int classId) const {
    auto const first = learning_.classes_.lower_bound({classId, 0});
    auto const last = learning_.classes_.upper_bound({classId, ~std::uint64_t{0}});
    return static_cast<std::size_t>(std::distance(first, last));
}

/** By this process itself, or learned before. */
TreflectMetaClass* Learning::Admission::known(unsigned int classId, std::uint64_t hash) const {
    if (TreflectMetaClass* const here = knownHere(classId, hash))
        return here;
    auto const learned = learning_.classes_.find({classId, hash});
    return learned == learning_.classes_.end() ? nullptr : learned->second.meta.get();
}

bool Learning::Admission::build() {
    for (auto const& [id, description] : byId_)
        metaOf(id, description->hash);
    auto const find = [this](unsigned int classId) -> TreflectMetaObject* {
        auto const found = metas_.find(classId);
        return found != metas_.end() ? found->second
                                     : InterfaceRepository::instance()->findInterface_(classId);
    };
    for (LearnedClass* const fresh : fresh_)
        fresh->finish(find);
    return !fresh_.empty();
}

TreflectMetaClass* Learning::Admission::metaOf(unsigned int classId, std::uint64_t hash) {
    TreflectMetaClass*& meta = metas_[classId];
    if (!meta)
        meta = known(classId, hash);
    if (!meta)
        meta = learn(*byId_.at(classId));
    return meta;
}

TreflectMetaClass* Learning::Admission::learn(Description const& description) {
    std::vector<TreflectMetaClass const*> bases;
    for (Description::Base const& base : description.bases)
        bases.push_back(metaOf(base.id, base.hash));
    tellDifferences(description);
    Learned learned{std::make_unique<LearnedClass>(description, bases), broker_};
    fresh_.push_back(learned.meta.get());
    Learned const& kept =
        learning_.classes_.emplace(Key(description.id, description.hash), std::move(learned))
            .first->second;
    return kept.meta.get();
}

/** From what this process knows by itself, and from what it has learned first. */
void Learning::Admission::tellDifferences(Description const& description) {
    if (TreflectMetaObject const* const here =
            InterfaceRepository::instance()->findInterface_(description.id))
        tellDifference(Description::of(*here), "this process", description, broker_);
    auto const other = learning_.classes_.lower_bound({description.id, 0});
    if (other == learning_.classes_.end() || other->first.first != description.id)
        return;
    char teller[32];
    std::snprintf(teller, sizeof teller, "broker 0x%08X", other->second.teller.value());
    tellDifference(other->second.meta->described(), teller, description, broker_);
}

// ---- The classes --------------------------------------------------------------------------------

Learning& Learning::instance() {
    static OSWrap::Immortal<Learning> learning;
    return *learning;
}

TreflectMetaObject* Learning::find(unsigned int classId, TreflectOrbId broker) {
    if (auto const known = uses_.find({broker, classId}); known != uses_.end())
        return known->second;
    TreflectProcessClient const process = TreflectProcessClient::of(broker);
    if (!process.isConnected())
        return nullptr;
    TipprmiResult<Answer> const answer =
        tipprmiCall<Answer>(process, processobject::kClass, processobject::kDescribe, classId);
    if (answer)
        return admit(classId, broker, answer.value().descriptions, answer.value().size);
    if (answer.code() == TipprmiFailure::kUnreadable)
        REFLECTORB_LOG_LIMITED(refused, 3, kSource,
                               "class 0x%X as broker 0x%08X describes it is refused: %s", classId,
                               broker.value(), "the answer is unreadable");
    return nullptr;
}

TreflectMetaObject* Learning::admit(unsigned int classId, TreflectOrbId broker,
                                    Descriptions const& descriptions, std::size_t size) {
    Admission admission(*this, broker, descriptions);
    std::string fault = admission.fault(classId);
    if (fault.empty() && bytes_ + size > kMostBytes)
        fault = "too much has been learned already";
    if (!fault.empty()) {
        REFLECTORB_LOG_LIMITED(refused, 3, kSource,
                               "class 0x%X as broker 0x%08X describes it is refused: %s", classId,
                               broker.value(), fault.c_str());
        return nullptr;
    }
    if (admission.build())
        bytes_ += size;
    if (uses_.size() > kMostUses)
        uses_.clear();
    for (auto const& [id, meta] : admission.metas())
        uses_.emplace(OfBroker(broker, id), meta);
    return uses_[{broker, classId}];
}
