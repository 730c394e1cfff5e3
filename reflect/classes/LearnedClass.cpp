#include "reflect/classes/LearnedClass.h"

#include <algorithm>
#include <cctype>
#include <set>

#include "reflect/TreflectMetaAttribute.h"

namespace {

using Description = TreflectClassDescription;

/** A name of a type, with that of the parameter behind it where it can stand there. */
std::string textOf(Description::Parameter const& parameter) {
    bool const isWord = std::all_of(parameter.name.begin(), parameter.name.end(), [](char letter) {
        return std::isalnum(static_cast<unsigned char>(letter)) || letter == '_';
    });
    bool const isNamed = !parameter.type.empty() && !parameter.name.empty() && isWord;
    return isNamed ? parameter.type + " " + parameter.name : parameter.type;
}

std::vector<std::string> textsOf(std::vector<Description::Parameter> const& parameters) {
    std::vector<std::string> texts;
    for (Description::Parameter const& parameter : parameters)
        texts.push_back(textOf(parameter));
    return texts;
}

std::vector<TreflectMetaClass::Operation> operationsOf(Description const& described) {
    std::vector<TreflectMetaClass::Operation> rows;
    for (Description::Operation const& operation : described.operations) {
        rows.push_back(
            {operation.name, operation.code, textsOf(operation.in), textsOf(operation.out), {}});
        for (Description::Exception const& exception : operation.raises)
            rows.back().raises.push_back({exception.code, exception.type});
    }
    return rows;
}

TreflectMetaClass::Attribute::Kind kindOf(Description::Kind kind) {
    switch (kind) {
        case Description::Kind::Sequence:
            return TreflectMetaClass::Attribute::kSequence;
        case Description::Kind::Array:
            return TreflectMetaClass::Attribute::kArray;
        default:
            return TreflectMetaClass::Attribute::kPlain;
    }
}

/** One that cannot be read would keep those behind it from being found. */
bool isReadable(Description const& described, std::vector<TreflectMetaClass const*> const& bases,
                std::string const& attribute) {
    std::string const get = "get" + attribute;
    auto const& own = described.operations;
    return std::any_of(own.begin(), own.end(), [&](auto const& row) { return row.name == get; }) ||
           std::any_of(bases.begin(), bases.end(),
                       [&](auto const* base) { return base->metaOperation_(get); });
}

std::vector<TreflectMetaClass::Attribute> attributesOf(
    Description const& described, std::vector<TreflectMetaClass const*> const& bases) {
    std::vector<TreflectMetaClass::Attribute> rows;
    for (Description::Attribute const& attribute : described.attributes) {
        if (isReadable(described, bases, attribute.name))
            rows.emplace_back(attribute.name.c_str(), kindOf(attribute.kind),
                              static_cast<int>(attribute.length));
    }
    return rows;
}

/** Of those that have one. */
TreflectMetaClass::Docs docsOf(Description const& described) {
    TreflectMetaClass::Docs docs{described.doc.c_str()};
    auto const add = [&docs](auto const& members) {
        for (auto const& member : members) {
            if (!member.doc.empty())
                docs.members.push_back({member.name.c_str(), member.doc.c_str()});
        }
    };
    add(described.operations);
    add(described.attributes);
    return docs;
}

}  // namespace

LearnedClass::LearnedClass(TreflectClassDescription const& described,
                           std::vector<TreflectMetaClass const*> const& bases)
    : KeptDescription{described},
      TreflectMetaClass(Unlisted(), description.name, description.id, bases,
                        operationsOf(description), attributesOf(description, bases),
                        description.types, docsOf(description)) {
    TreflectMetaClass::completeMetaInformation();
}

void LearnedClass::setValueClasses(
    std::function<TreflectMetaObject*(unsigned int classId)> const& find) {
    for (Description::Attribute const& attribute : description.attributes) {
        TreflectMetaObject* const value =
            attribute.valueClass.empty() ? nullptr : find(attribute.valueClassId);
        TreflectMetaAttribute* const own = ownAttribute(attribute.name);
        if (value && own)
            own->registerType(value);
    }
}
