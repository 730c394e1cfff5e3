#include <algorithm>

#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaClass.h"
#include "reflect/TreflectMetaOperation.h"

TreflectMetaClass::TreflectMetaClass(std::string const& name, unsigned int classId,
                                     std::vector<TreflectMetaClass const*> bases,
                                     std::vector<Operation> operations,
                                     std::vector<Attribute> attributes)
    : TreflectMetaObject(name, classId),
      bases_(std::move(bases)),
      operations_(std::move(operations)),
      attributes_(std::move(attributes)) {
    // A class learns of its derived ones, though it is a constant to everybody else.
    for (TreflectMetaClass const* const base : bases_)
        registerParent(const_cast<TreflectMetaClass*>(base));
}

TreflectMetaClass::~TreflectMetaClass() = default;

// Of a base that is reached in several ways the last occurrence counts, since a class that is
// derived from it stands before each of them.
TipprmiSequence<unsigned int, 0u> TreflectMetaClass::classIds() const {
    std::vector<unsigned int> occurrences;
    appendIds(occurrences);
    TipprmiSequence<unsigned int, 0u> ids;
    for (auto at = occurrences.begin(); at != occurrences.end(); ++at) {
        if (std::find(at + 1, occurrences.end(), *at) == occurrences.end())
            ids.push_back(*at);
    }
    return ids;
}

void TreflectMetaClass::appendIds(std::vector<unsigned int>& ids) const {
    ids.push_back(getClassId());
    for (TreflectMetaClass const* const base : bases_)
        base->appendIds(ids);
}

void TreflectMetaClass::completeMetaInformation() {
    if (completed_)
        return;
    completed_ = true;
    // Attributes may be made of operations that a base declares.
    for (TreflectMetaObject* const base : parents())
        complete(*base);
    std::vector<MetaOpData> operations;
    for (Operation const& operation : operations_)
        operations.push_back({operation.name, static_cast<int>(operation.id)});
    std::vector<MetaAttrData> attributes;
    for (Attribute const& attribute : attributes_) {
        if (attribute.kind == Attribute::kPlain)
            attributes.push_back({attribute.name});
    }
    MetaOpData const noOperation{};
    MetaAttrData const noAttribute{};
    completeMetaInformationHelper(operations.empty() ? &noOperation : operations.data(),
                                  static_cast<unsigned int>(operations.size()),
                                  attributes.empty() ? &noAttribute : attributes.data(),
                                  static_cast<unsigned int>(attributes.size()));
    registerContainers();
    describeParameters();
    describeTypes();
}

void TreflectMetaClass::registerContainers() {
    for (Attribute const& described : attributes_) {
        if (described.kind == Attribute::kPlain)
            continue;
        std::string const name = described.name;
        TreflectMetaOperation const* const get = getOperationOf(name);
        if (!get)
            return;
        TreflectMetaOperation const* const set = metaOperation_("set" + name);
        if (described.kind == Attribute::kArray)
            registerAttribute(
                new TreflectArrayMetaAttribute(name, this, get, set, described.length));
        else
            registerAttribute(
                new TreflectSequenceMetaAttribute(name, this, get, set, described.length));
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
    }
}

void TreflectMetaClass::describeTypes() {
    std::list<TreflectMetaAttribute*> known;
    attributeList(known);
    for (Attribute const& described : attributes_) {
        if (!described.type)
            continue;
        auto* const type = const_cast<TreflectMetaClass*>(described.type);
        complete(*type);
        for (TreflectMetaAttribute* const attribute : known) {
            if (attribute->containingMetaObject() == this && attribute->name() == described.name)
                attribute->registerType(type);
        }
    }
}
