#include "Showing.h"

#include <list>
#include <set>

#include "Descriptions.h"

namespace {

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

Done valueOf(Found const& object, TreflectAttribute& attribute) {
    std::string const name = attribute.meta()->name();
    try {
        return {object.name, name, readAttribute(attribute)};
    } catch (Failure const& why) {
        return {object.name, name, std::nullopt, why.outcome(), why.what()};
    }
}

Json operationJson(TreflectMetaOperation const& operation) {
    Json raises = Json::array();
    for (auto const& exception : operation.exceptions())
        raises.push_back({{"code", exception.first}, {"type", exception.second}});
    return {{"name", operation.name()},
            {"in", typesJson(operation.argumentTypes())},
            {"out", typesJson(operation.resultTypes())},
            {"raises", raises}};
}

Description describe(Found const& found) {
    Description told;
    TreflectObject const object = handleOn(found.place);
    try {
        TreflectMetaObject const& meta = classOf(object);
        told.className = meta.name();
        for (TreflectMetaObject const* const one : withBases(meta)) {
            told.classes.push_back({one->name(), {}});
            for (TreflectMetaObject const* const base : one->parents())
                told.classes.back().second.push_back(base->name());
        }
        for (TreflectMetaOperation const* const operation : operationsOf(meta))
            told.operations.push_back({signatureText(*operation), operationJson(*operation)});
        for (TreflectMetaAttribute const* const attribute : attributesOf(meta)) {
            if (attribute->metaOperGet())
                told.attributes.push_back({attribute->name(),
                                           typesText(attribute->metaOperGet()->resultTypes()),
                                           attribute->metaOperSet() != nullptr,
                                           valueOf(found, *attribute->getTied(&object)),
                                           firstLineOf(commentOf(*attribute)), unitOf(*attribute)});
        }
    } catch (Failure const& why) {
        told.outcome = why.outcome();
        told.failure = why.what();
    }
    return told;
}

}  // namespace

Description describe(Asking& asking, Found const& found) {
    Answer<Description> const answer =
        asking
            .each<Description>({TreflectOrbId(found.place.broker)},
                               [found](std::size_t) { return std::optional(describe(found)); })
            .front();
    Description told = answer.value;
    if (!answer) {
        told.outcome = ExitCode::kTimedOut;
        told.failure = "no answer in time";
    }
    return told;
}

Json jsonOf(Found const& found, std::string const& process, Description const& told) {
    Json all = {{"object", found.name},
                {"process", process},
                {"broker", found.place.broker},
                {"id", found.place.id}};
    if (told.outcome != ExitCode::kDone) {
        all["error"] = errorJson(told.outcome, told.failure);
        return all;
    }
    all["class"] = told.className;
    all["classes"] = Json::array();
    for (auto const& one : told.classes)
        all["classes"].push_back({{"name", one.first}, {"bases", one.second}});
    all["attributes"] = Json::array();
    for (Description::Attribute const& attribute : told.attributes) {
        Json one = {{"name", attribute.name},
                    {"type", attribute.type},
                    {"writable", attribute.writable},
                    {"doc", attribute.doc}};
        if (!attribute.unit.empty())
            one["unit"] = attribute.unit;
        if (attribute.value.value)
            one["value"] = attribute.value.value->json;
        else
            one["error"] = errorJson(attribute.value.outcome, attribute.value.text);
        all["attributes"].push_back(one);
    }
    all["operations"] = Json::array();
    for (Description::Operation const& operation : told.operations)
        all["operations"].push_back(operation.json);
    return all;
}
