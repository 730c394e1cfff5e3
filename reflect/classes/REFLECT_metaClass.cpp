#include <algorithm>
#include <set>

#include "logging/Log.h"
#include "reflect/InterfaceRepository.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaClass.h"
#include "reflect/TreflectMetaOperation.h"

namespace {

// The lines are about the table of the class, whoever makes it.
constexpr char kSource[] = "REFLECT_metaObject";

/** The last one is what a meta object knows by the name; the others would be lost to it. */
template <class Row>
void keepLastOfEachName(std::vector<Row>& rows) {
    for (auto row = rows.begin(); row != rows.end();) {
        std::string const name = row->name;
        bool const repeated =
            std::any_of(row + 1, rows.end(), [&](Row const& other) { return name == other.name; });
        row = repeated ? rows.erase(row) : row + 1;
    }
}

}  // namespace

TreflectMetaClass::TreflectMetaClass(std::string const& name, unsigned int classId,
                                     std::vector<TreflectMetaClass const*> bases,
                                     std::vector<Operation> operations,
                                     std::vector<Attribute> attributes,
                                     std::vector<std::string> types, Docs docs)
    : TreflectMetaObject(name, classId),
      bases_(std::move(bases)),
      operations_(std::move(operations)),
      attributes_(std::move(attributes)),
      types_(std::move(types)),
      docs_(std::move(docs)) {
    registerBases();
}

TreflectMetaClass::TreflectMetaClass(Unlisted unlisted, std::string const& name,
                                     unsigned int classId,
                                     std::vector<TreflectMetaClass const*> bases,
                                     std::vector<Operation> operations,
                                     std::vector<Attribute> attributes,
                                     std::vector<std::string> types, Docs docs)
    : TreflectMetaObject(unlisted, name, classId),
      bases_(std::move(bases)),
      operations_(std::move(operations)),
      attributes_(std::move(attributes)),
      types_(std::move(types)),
      docs_(std::move(docs)) {
    registerBases();
}

void TreflectMetaClass::registerBases() {
    // A class learns of its derived ones, though it is a constant to everybody else.
    for (TreflectMetaClass const* const base : bases_)
        registerParent(const_cast<TreflectMetaClass*>(base));
    collectIds();
}

TreflectMetaClass::~TreflectMetaClass() = default;

char const* TreflectMetaClass::docOf(std::string const& member) const {
    auto const& members = docs_.members;
    auto const found = std::find_if(members.begin(), members.end(),
                                    [&](Docs::Member const& doc) { return member == doc.name; });
    return found == members.end() ? "" : found->text;
}

// Of a base that is reached in several ways the last occurrence counts, since a class that is
// derived from it stands before each of them. The ids stay when a base has gone. Derived classes
// that were built before this one have been waiting for its ids.
void TreflectMetaClass::collectIds() {
    std::vector<unsigned int> occurrences{getClassId()};
    knowsBases_ = true;
    for (TreflectMetaClass const* const base : bases_) {
        knowsBases_ = knowsBases_ && isBuilt(base) && base->knowsBases_;
        if (isBuilt(base))
            occurrences.insert(occurrences.end(), base->ids_.begin(), base->ids_.end());
    }
    ids_.clear();
    for (auto at = occurrences.begin(); at != occurrences.end(); ++at) {
        if (std::find(at + 1, occurrences.end(), *at) == occurrences.end())
            ids_.push_back(*at);
    }
    for (TreflectMetaObject* const child : children()) {
        auto* const derived = dynamic_cast<TreflectMetaClass*>(child);
        if (derived && !derived->knowsBases_)
            derived->collectIds();
    }
}

TipprmiSequence<unsigned int, 0u> TreflectMetaClass::classIds() const {
    InterfaceRepository::instance()->keepForBrokers_();
    TipprmiSequence<unsigned int, 0u> ids;
    for (unsigned int const id : ids_)
        ids.push_back(id);
    return ids;
}

void TreflectMetaClass::completeMetaInformation() {
    if (!completed_ && knowsBases_) {
        completed_ = true;
        registerMembers();
    }
    if (completed_ && !typed_) {
        typed_ = true;  // classes may hold each other
        typed_ = describeTypes();
    }
}

void TreflectMetaClass::registerMembers() {
    // Attributes may be made of operations that a base declares.
    for (TreflectMetaObject* const base : parents())
        complete(*base);
    if (isListed()) {
        tellMistakes();
        tellClashesOfBases();
    }
    registerTypes();
    if (isListed())
        tellUnknownTypes();
    keepLastOfEachName(operations_);
    keepLastOfEachName(attributes_);
    std::vector<MetaOpData> operations;
    for (Operation const& operation : operations_)
        operations.push_back({operation.name.c_str(), static_cast<int>(operation.id)});
    MetaOpData const noOperation{};
    MetaAttrData const noAttribute{};
    completeMetaInformationHelper(operations.empty() ? &noOperation : operations.data(),
                                  static_cast<unsigned int>(operations.size()), &noAttribute, 0);
    registerAttributes();
    describeParameters();
}

void TreflectMetaClass::registerTypes() {
    for (std::string const& definition : types_)
        registerType(definition);
}

// Bases are complete: what they have is in their tables. To repeat an operation of a base as it is
// does no harm.
void TreflectMetaClass::tellMistakes() const {
    std::list<TreflectMetaOperation*> known;
    operationList(known);
    for (auto at = operations_.begin(); at != operations_.end(); ++at) {
        for (auto other = operations_.begin(); other != at; ++other) {
            if (other->name == at->name || other->id == at->id)
                tellClash(*at, name(), other->name, static_cast<int>(other->id));
        }
        for (TreflectMetaOperation const* const other : known) {
            if ((other->name() == at->name) != (other->id() == static_cast<int>(at->id)))
                tellClash(*at, other->containingMetaObject()->name(), other->name(), other->id());
        }
    }
}

// What two bases have in common clashes with nothing that is new here.
void TreflectMetaClass::tellClashesOfBases() const {
    std::vector<std::list<TreflectMetaOperation*>> known;
    for (TreflectMetaClass const* const base : bases_) {
        std::list<TreflectMetaOperation*> ofBase;
        base->operationList(ofBase);
        for (auto const& ofOther : known)
            tellClashes(ofOther, ofBase);
        known.push_back(std::move(ofBase));
    }
}

void TreflectMetaClass::tellClashes(std::list<TreflectMetaOperation*> const& some,
                                    std::list<TreflectMetaOperation*> const& others) const {
    std::set<TreflectMetaOperation*> const inSome(some.begin(), some.end());
    std::set<TreflectMetaOperation*> const inOthers(others.begin(), others.end());
    for (TreflectMetaOperation* const one : inSome) {
        for (TreflectMetaOperation* const other : inOthers) {
            bool const isKnown = inOthers.count(one) != 0 || inSome.count(other) != 0;
            if (isKnown || (one->name() == other->name()) == (one->id() == other->id()))
                continue;
            REFLECTORB_LOG(3, kSource,
                           "class \"%s\" has operation \"%s\" (%d) of \"%s\" and \"%s\" (%d) of "
                           "\"%s\"",
                           name().c_str(), one->name().c_str(), one->id(),
                           one->containingMetaObject()->name().c_str(), other->name().c_str(),
                           other->id(), other->containingMetaObject()->name().c_str());
        }
    }
}

void TreflectMetaClass::tellClash(Operation const& operation, std::string const& otherClass,
                                  std::string const& otherName, int otherId) const {
    REFLECTORB_LOG(3, kSource,
                   "operation \"%s\" (%u) of class \"%s\" clashes with \"%s\" (%d) of \"%s\"",
                   operation.name.c_str(), operation.id, name().c_str(), otherName.c_str(), otherId,
                   otherClass.c_str());
}

void TreflectMetaClass::registerAttributes() {
    for (Attribute const& described : attributes_) {
        std::string const name = described.name;
        TreflectMetaOperation const* const get = getOperationOf(name);
        if (!get)
            return;
        TreflectMetaOperation const* const set = metaOperation_("set" + name);
        int const length = described.length;
        if (described.kind == Attribute::kArray)
            registerAttribute(new TreflectArrayMetaAttribute(name, this, get, set, length));
        else if (described.kind == Attribute::kSequence)
            registerAttribute(new TreflectSequenceMetaAttribute(name, this, get, set, length));
        else
            registerAttribute(new TreflectMetaAttribute(name, this, get, set));
    }
}

void TreflectMetaClass::tellUnknownTypes() const {
    std::set<std::string> named;
    for (Operation const& operation : operations_) {
        named.insert(operation.in.begin(), operation.in.end());
        named.insert(operation.out.begin(), operation.out.end());
        for (Exception const& exception : operation.raises)
            named.insert(exception.type);
    }
    for (std::string const& type : named) {
        if (!type.empty() && !TreflectParameterType(type, types()).isValid())
            REFLECTORB_LOG(3, kSource, "class \"%s\": \"%s\" is no name of a type", name().c_str(),
                           type.c_str());
    }
}

// The members are this object's own, and handed out as constants only.
void TreflectMetaClass::describeParameters() {
    for (Operation const& described : operations_) {
        auto* const operation = const_cast<TreflectMetaOperation*>(metaOperation_(described.name));
        for (std::size_t i = 0; i < described.in.size(); ++i)
            operation->registerParameter("in" + std::to_string(i), described.in[i]);
        for (std::size_t i = 0; i < described.out.size(); ++i)
            operation->registerParameter("out" + std::to_string(i), described.out[i]);
        for (Exception const& exception : described.raises)
            operation->registerException(exception.code, exception.type);
    }
}

bool TreflectMetaClass::describeTypes() {
    bool found = true;
    for (Attribute const& described : attributes_) {
        if (!described.type)
            continue;
        if (!isBuilt(described.type)) {
            found = false;
            continue;
        }
        auto* const type = const_cast<TreflectMetaClass*>(described.type);
        complete(*type);
        if (TreflectMetaAttribute* const own = ownAttribute(described.name))
            own->registerType(type);
    }
    return found;
}
