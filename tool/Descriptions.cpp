#include "Descriptions.h"

#include <fmt/format.h>

#include <set>
#include <sstream>

#include "Failure.h"
#include "Units.h"
#include "Wildcard.h"

namespace {

using Description = TreflectClassDescription;

Json parametersJson(std::vector<Description::Parameter> const& parameters) {
    Json all = Json::array();
    for (Description::Parameter const& parameter : parameters)
        all.push_back({{"name", parameter.name}, {"type", parameter.type}});
    return all;
}

Json operationsJson(Description const& described) {
    Json all = Json::array();
    for (Description::Operation const& operation : described.operations) {
        Json raises = Json::array();
        for (Description::Exception const& exception : operation.raises)
            raises.push_back({{"code", exception.code}, {"type", exception.type}});
        all.push_back({{"name", operation.name},
                       {"code", operation.code},
                       {"in", parametersJson(operation.in)},
                       {"out", parametersJson(operation.out)},
                       {"raises", raises},
                       {"doc", operation.doc}});
    }
    return all;
}

Json attributesJson(Description const& described) {
    constexpr char const* kKinds[] = {"plain", "sequence", "array"};
    Json all = Json::array();
    for (Description::Attribute const& attribute : described.attributes) {
        all.push_back({{"name", attribute.name},
                       {"type", typeOf(described, attribute.name)},
                       {"kind", kKinds[static_cast<unsigned int>(attribute.kind) % 3]},
                       {"length", attribute.length},
                       {"writable", attribute.writable},
                       {"valueClass", attribute.valueClass},
                       {"valueClassId", attribute.valueClassId},
                       {"doc", attribute.doc}});
        if (std::string const unit = unitIn(attribute.doc);
            !unit.empty() && isOfNumbers(typeOf(described, attribute.name)))
            all.back()["unit"] = unit;
    }
    return all;
}

Json jsonOf(Description const& described) {
    Json bases = Json::array();
    for (Description::Base const& base : described.bases)
        bases.push_back(
            {{"name", base.name}, {"id", base.id}, {"hash", fmt::format("{:016x}", base.hash)}});
    return {{"name", described.name},
            {"id", described.id},
            {"hash", fmt::format("{:016x}", described.hash)},
            {"bases", bases},
            {"attributes", attributesJson(described)},
            {"operations", operationsJson(described)},
            {"types", described.types},
            {"doc", described.doc}};
}

std::uint64_t hashOf(Json const& json) {
    return std::strtoull(json.at("hash").get<std::string>().c_str(), nullptr, 16);
}

std::vector<Description::Parameter> parametersOf(Json const& json) {
    std::vector<Description::Parameter> parameters;
    for (Json const& one : json)
        parameters.push_back(
            {one.at("name").get<std::string>(), one.at("type").get<std::string>()});
    return parameters;
}

Description descriptionOf(Json const& json) {
    Description described;
    described.name = json.at("name").get<std::string>();
    described.id = json.at("id").get<unsigned int>();
    described.hash = hashOf(json);
    described.types = json.at("types").get<std::vector<std::string>>();
    for (Json const& base : json.at("bases"))
        described.bases.push_back(
            {base.at("name").get<std::string>(), base.at("id").get<unsigned int>(), hashOf(base)});
    for (Json const& one : json.at("operations")) {
        Description::Operation operation;
        operation.name = one.at("name").get<std::string>();
        operation.code = one.at("code").get<unsigned int>();
        operation.in = parametersOf(one.at("in"));
        operation.out = parametersOf(one.at("out"));
        for (Json const& exception : one.at("raises"))
            operation.raises.push_back({exception.at("code").get<unsigned int>(),
                                        exception.at("type").get<std::string>()});
        described.operations.push_back(operation);
    }
    for (Json const& one : json.at("attributes")) {
        Description::Attribute attribute;
        std::string const kind = one.at("kind").get<std::string>();
        attribute.name = one.at("name").get<std::string>();
        attribute.kind = kind == "array"      ? Description::Kind::Array
                         : kind == "sequence" ? Description::Kind::Sequence
                                              : Description::Kind::Plain;
        attribute.length = one.at("length").get<unsigned int>();
        attribute.writable = one.at("writable").get<bool>();
        attribute.valueClass = one.at("valueClass").get<std::string>();
        attribute.valueClassId = one.at("valueClassId").get<unsigned int>();
        described.attributes.push_back(attribute);
    }
    return described;
}

}  // namespace

Descriptions describedBy(Tool& tool, Processes const& processes, std::string const& pattern) {
    auto const answers = askProcessObjects<Descriptions>(
        tool.asking(), processes,
        [pattern](TreflectProcessClient const& client) -> std::optional<Descriptions> {
            auto const known = client.classes();
            Descriptions found;
            for (processobject::KnownClass const& one : known.value()) {
                if (!Wildcard(pattern).matches(one.name))
                    continue;
                auto const described = client.describe(one.id);
                if (!described || described.value().empty())
                    return std::nullopt;
                found.push_back(described.value().front());
            }
            return known ? std::optional(found) : std::nullopt;
        });
    Descriptions all;
    std::set<std::string> names;
    bool isSilent = false;
    for (Answer<Descriptions> const& answer : answers) {
        isSilent = isSilent || answer.timedOut();
        for (Description const& one : answer.value) {
            if (names.insert(one.name).second)
                all.push_back(one);
        }
    }
    if (all.empty())
        throw Failure(isSilent ? ExitCode::kTimedOut : ExitCode::kNotThere,
                      "no process that answers knows a class \"" + pattern + "\"");
    return all;
}

Json jsonOf(Descriptions const& descriptions) {
    Json all = Json::array();
    for (Description const& described : descriptions)
        all.push_back(jsonOf(described));
    return all;
}

Descriptions descriptionsOf(Json const& json, std::string const& source) {
    try {
        Descriptions descriptions;
        for (Json const& one : json.at("classes"))
            descriptions.push_back(descriptionOf(one));
        return descriptions;
    } catch (Json::exception const& fault) {
        throw Failure(ExitCode::kWrongUse, source + " has no descriptions: " + fault.what());
    }
}

std::string signatureOf(Description::Operation const& operation) {
    auto const text = [](std::vector<Description::Parameter> const& parameters) {
        std::string all;
        for (Description::Parameter const& parameter : parameters)
            all += (all.empty() ? "" : ", ") + parameter.type +
                   (parameter.name.empty() ? "" : " " + parameter.name);
        return all;
    };
    std::string const results = text(operation.out);
    return operation.name + "(" + text(operation.in) + ")" +
           (results.empty() ? "" : " -> " + results);
}

Description::Operation const* operationOf(Description const& described, std::string const& name) {
    for (Description::Operation const& operation : described.operations) {
        if (operation.name == name)
            return &operation;
    }
    return nullptr;
}

std::string typeOf(Description const& described, std::string const& attribute) {
    Description::Operation const* const get = operationOf(described, "get" + attribute);
    return get && !get->out.empty() ? get->out.front().type : "";
}

std::vector<std::string> linesOf(std::string const& comment) {
    constexpr char kMarks[] = " \t/*!";
    std::vector<std::string> lines;
    std::istringstream text(comment);
    for (std::string line; std::getline(text, line);) {
        std::size_t const begin = line.find_first_not_of(kMarks);
        std::size_t const end = line.find_last_not_of(" \t*/\r");
        if (begin != std::string::npos && end != std::string::npos && begin <= end)
            lines.push_back(line.substr(begin, end + 1 - begin));
    }
    return lines;
}

std::string firstLineOf(std::string const& comment) {
    std::vector<std::string> const lines = linesOf(comment);
    return lines.empty() ? "" : lines.front();
}
