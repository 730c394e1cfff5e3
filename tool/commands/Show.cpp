// reflectorb show: what an object is.
#include "Commands.h"
#include "Members.h"
#include "RecordedCalls.h"
#include "Showing.h"

namespace {

class Show final : public Command {
public:
    Show()
        : Command("show", "Show classes, attributes and operations of objects, or a recording") {}

    void declare(Options& options) override {
        options.words("object", objects_, true, "OBJECT..., or a FILE of reflectorb record");
    }

    /** A file is shown without the group. */
    bool stays() const override { return objects_.size() == 1 && isRecording(objects_[0]); }
    ExitCode stay(Settings const&, Output& output) override {
        return showRecording(objects_[0], output);
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
        if (tool.objects().mayMissAny()) {
            tool.objects().missing().tell(tool.output());
            outcome_ = outcome_ == ExitCode::kDone ? ExitCode::kTimedOut : outcome_;
        }
        tool.output().document({{"objects", all}});
        return outcome_;
    }

private:
    Json tell(Tool& tool, Found const& found) {
        Description const told = describe(tool.asking(), found);
        if (told.outcome != ExitCode::kDone) {
            tool.output().complain(found.name + ": " + told.failure);
            outcome_ = outcome_ == ExitCode::kDone ? told.outcome : outcome_;
        } else {
            tellPeople(tool, found, told);
        }
        return jsonOf(found, nameOfOwner(tool.processes(), found.place.broker), told);
    }

    static void tellPeople(Tool& tool, Found const& found, Description const& told) {
        Output& output = tool.output();
        output.heading(found.name);
        Table facts({{""}, {""}, {""}, {""}, {""}});
        facts.add({"process", nameOfOwner(tool.processes(), found.place.broker), "", "", ""});
        for (auto const& one : told.classes) {
            std::string bases;
            for (std::string const& base : one.second)
                bases += (bases.empty() ? "is a " : ", ") + base;
            facts.add({"class", one.first, bases, "", ""});
        }
        for (Description::Attribute const& attribute : told.attributes) {
            Done const& value = attribute.value;
            facts.add({"attribute", attribute.name,
                       attribute.type + (attribute.writable ? "" : " read-only"),
                       value.value ? "= " + value.value->textWithUnit() : "? " + value.text,
                       attribute.doc});
        }
        output.indented(facts);
        for (Description::Operation const& operation : told.operations)
            output.line("  operation  " + operation.signature);
    }

    std::vector<std::string> objects_;
    ExitCode outcome_ = ExitCode::kDone;
};

}  // namespace

std::unique_ptr<Command> makeShow() {
    return std::make_unique<Show>();
}
