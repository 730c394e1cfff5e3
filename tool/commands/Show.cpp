// reflectorb show: what an object is.
#include <list>
#include <set>

#include "Commands.h"
#include "Members.h"
#include "RecordedCalls.h"

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

struct Attribute {
    std::string name;
    std::string type;
    bool writable = false;
    Done value;
};

struct Operation {
    std::string signature;
    Json json;
};

/** All that is told of one object. A value. */
struct Description {
    std::string className;
    std::vector<std::pair<std::string, std::vector<std::string>>> classes;  // with their bases
    std::vector<Attribute> attributes;
    std::vector<Operation> operations;
    std::vector<std::string> children;
    ExitCode outcome = ExitCode::kDone;
    std::string failure;
};

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
                                           valueOf(found, *attribute->getTied(&object))});
        }
    } catch (Failure const& why) {
        told.outcome = why.outcome();
        told.failure = why.what();
    }
    return told;
}

class Show final : public Command {
public:
    Show()
        : Command("show", "Show classes, attributes and operations of objects, or a recording") {}

    void declare(Options& options) override {
        options.words("object", objects_, true, "OBJECT..., or a FILE of reflectorb record");
    }

    /** A file is shown without the group. */
    bool stays() const override { return objects_.size() == 1 && isRecording(objects_[0]); }
    ExitCode stay(Settings const& settings, Output& output) override {
        return showRecording(objects_[0], settings, output);
    }

    ExitCode run(Tool& tool) override {
        Json all = Json::array();
        for (std::string const& name : objects_) {
            try {
                for (Found const& found : tool.objects().find(name))
                    all.push_back(tell(tool, found));
            } catch (Failure const& why) {
                tool.output().complain(why.what());
                outcome_ = outcome_ == ExitCode::kDone ? why.outcome() : outcome_;
                all.push_back({{"object", name}, {"error", errorJson(why.outcome(), why.what())}});
            }
        }
        tool.output().document({{"objects", all}});
        return outcome_;
    }

private:
    Json tell(Tool& tool, Found const& found) {
        Description told;
        for (Answer<Description> const& answer : tool.asking().each<Description>(
                 {TreflectOrbId(found.place.broker)},
                 [found](std::size_t) { return std::optional(describe(found)); })) {
            told = answer.value;
            if (!answer) {
                told.outcome = ExitCode::kTimedOut;
                told.failure = "no answer in time";
            }
        }
        if (told.outcome != ExitCode::kDone) {
            tool.output().complain(found.name + ": " + told.failure);
            outcome_ = outcome_ == ExitCode::kDone ? told.outcome : outcome_;
        } else {
            tellPeople(tool, found, told);
        }
        return json(tool, found, told);
    }

    static void tellPeople(Tool& tool, Found const& found, Description const& told) {
        Output& output = tool.output();
        output.heading(found.name);
        Table facts({{""}, {""}, {""}, {""}});
        facts.add({"process", nameOfOwner(tool.processes(), found.place.broker), "", ""});
        for (auto const& one : told.classes) {
            std::string bases;
            for (std::string const& base : one.second)
                bases += (bases.empty() ? "is a " : ", ") + base;
            facts.add({"class", one.first, bases, ""});
        }
        for (Attribute const& attribute : told.attributes) {
            Done const& value = attribute.value;
            facts.add({"attribute", attribute.name,
                       attribute.type + (attribute.writable ? "" : " read-only"),
                       value.value ? "= " + value.value->text : "? " + value.text});
        }
        std::string text;
        for (std::string const& line : facts.lines(output.width(), false))
            output.line("  " + line);
        for (Operation const& operation : told.operations)
            output.line("  operation  " + operation.signature);
    }

    static Json json(Tool& tool, Found const& found, Description const& told) {
        Json all = {{"object", found.name},
                    {"process", nameOfOwner(tool.processes(), found.place.broker)},
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
        for (Attribute const& attribute : told.attributes) {
            Json one = {{"name", attribute.name},
                        {"type", attribute.type},
                        {"writable", attribute.writable}};
            if (attribute.value.value)
                one["value"] = attribute.value.value->json;
            else
                one["error"] = errorJson(attribute.value.outcome, attribute.value.text);
            all["attributes"].push_back(one);
        }
        all["operations"] = Json::array();
        for (Operation const& operation : told.operations)
            all["operations"].push_back(operation.json);
        return all;
    }

    std::vector<std::string> objects_;
    ExitCode outcome_ = ExitCode::kDone;
};

}  // namespace

std::unique_ptr<Command> makeShow() {
    return std::make_unique<Show>();
}
