#include "Describe.h"

#include <cstdio>
#include <list>
#include <set>
#include <string>

#include "Report.h"
#include "Values.h"

namespace {

std::string identifierText(TreflectObject const& object) {
    TipprmiAny value;
    value.insert(object);
    return TreflectParameterType("object").print(value).value();
}

/** The class and then its bases, generation by generation: the most special comes first. */
std::list<TreflectMetaObject const*> withBases(TreflectMetaObject const& meta) {
    std::list<TreflectMetaObject const*> classes{&meta};
    std::set<TreflectMetaObject const*> known{&meta};
    for (TreflectMetaObject const* const derived : classes) {
        for (TreflectMetaObject const* const base : derived->parents()) {
            if (known.insert(base).second)
                classes.push_back(base);
        }
    }
    return classes;
}

void printClasses(TreflectMetaObject const& meta) {
    std::puts("classes");
    for (TreflectMetaObject const* const one : withBases(meta)) {
        std::string bases;
        for (TreflectMetaObject const* const base : one->parents())
            bases += (bases.empty() ? "  is a " : ", ") + base->name();
        std::printf("  %s%s\n", one->name().c_str(), bases.c_str());
    }
}

/** What an attribute has now. It is read by its get operation, which describes the value: an
 * attribute itself can be read by those only who know its type. */
std::string valueText(TreflectAttribute& attribute) {
    TreflectOperation& get = attribute.operGet();
    TipprmiResult<Values> const value = get.invoke(Values());
    return value ? valuesText(get.meta()->resultTypes(), value.value())
                 : "? (" + failureText(value.code()) + ")";
}

// Members are found in the class by their names and tied to the object: asking the object for each
// by name would have it tell its class each time anew.

void printAttributes(TreflectObject const& object, TreflectMetaObject const& meta) {
    std::list<TreflectMetaAttribute*> attributes;
    meta.attributeList(attributes);
    std::set<std::string> shown;  // the name of a special class hides that of a base
    std::puts("attributes");
    for (TreflectMetaAttribute const* const attribute : attributes) {
        if (!shown.insert(attribute->name()).second)
            continue;
        std::string const types = typesText(attribute->metaOperGet()->resultTypes());
        std::printf("  %-16s %-20s %-10s = %s\n", attribute->name().c_str(), types.c_str(),
                    attribute->metaOperSet() ? "" : "read-only",
                    valueText(*attribute->getTied(&object)).c_str());
    }
}

void printOperations(TreflectMetaObject const& meta) {
    std::list<TreflectMetaOperation*> operations;
    meta.operationList(operations);
    std::set<std::string> shown;
    std::puts("operations");
    for (TreflectMetaOperation const* const operation : operations) {
        if (shown.insert(operation->name()).second)
            std::printf("  %s\n", signatureText(*operation).c_str());
    }
}

std::string classText(TreflectObject const& object) {
    TreflectMetaObject const* const meta = object.meta();
    if (meta)
        return meta->name();
    return object.isConnected() ? "of an unknown class" : "does not answer";
}

void printSubtree(TreflectObject const& object, std::string const& name, unsigned int depth) {
    constexpr unsigned int kDeepest = 32;  // a tree that is made wrongly may have itself in it
    std::string const indented = std::string(2 * depth, ' ') + name;
    std::printf("%-32s %s\n", indented.c_str(), classText(object).c_str());
    if (depth == kDeepest || !object.isConnected())
        return;
    TipprmiSequence<TreflectObject, 0u> const children = object.getChilds();
    for (unsigned int i = 0; i < children.getLength(); ++i)
        printSubtree(children[i], children[i].getRelName(), depth + 1);
}

}  // namespace

void describe(TreflectObject const& object) {
    TreflectMetaObject const* const meta = object.meta();
    if (!meta)
        return;
    std::printf("name        %s\nidentifier  %s\n", object.getAbsName().c_str(),
                identifierText(object).c_str());
    printClasses(*meta);
    printAttributes(object, *meta);
    printOperations(*meta);
}

void printTree(TreflectObject const& object) {
    printSubtree(object, object.getAbsName(), 0);
}
