// reflectorb classes and describe: what the processes tell of their classes.
#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "Commands.h"
#include "Descriptions.h"
#include "Idl.h"
#include "Wildcard.h"

namespace {

using processobject::KnownClass;

class Classes final : public Command {
public:
    Classes() : Command("classes", "List the classes that processes know") {}

    void declare(Options& options) override {
        options.text("--process", "PROCESS", process_, "Those of a process: actor, pid or both");
        options.word("class", pattern_, false, "CLASS: a name or a pattern");
    }

    ExitCode run(Tool& tool) override {
        Processes const processes = select(tool.processes(), process_);
        using Known = std::vector<KnownClass>;
        auto const answers = askProcessObjects<Known>(
            tool.asking(), processes,
            [](TreflectProcessClient const& client) { return valueOf(client.classes()); });
        Missing missing;
        for (std::size_t i = 0; i < processes.size(); ++i) {
            missing.note(processes[i], answers[i]);
            for (KnownClass const& known : answers[i].value) {
                if (pattern_.empty() || Wildcard(pattern_).matches(known.name))
                    variants_[{known.name, known.id}][known.hash].push_back(processes[i].name());
            }
        }
        tell(tool, missing);
        if (!variants_.empty() || pattern_.empty())
            return missing.outcome();
        tool.output().complain("no process that answers knows a class \"" + pattern_ + "\"");
        return missing.isAnySilent() ? ExitCode::kTimedOut : ExitCode::kNotThere;
    }

private:
    void tell(Tool& tool, Missing const& missing) const {
        Table table({{"CLASS"}, {"ID"}, {"HASH"}, {"PROCESSES"}});
        Json all = Json::array();
        for (auto const& known : variants_) {
            for (auto const& variant : known.second) {
                std::string names;
                for (std::string const& name : variant.second)
                    names += (names.empty() ? "" : ", ") + name;
                std::string const id = fmt::format("0x{:08X}", known.first.second);
                std::string const hash = fmt::format("{:016x}", variant.first);
                table.add({known.first.first, id,
                           hash + (known.second.size() > 1 ? " differs" : ""), names});
                all.push_back({{"name", known.first.first},
                               {"id", known.first.second},
                               {"hash", hash},
                               {"differs", known.second.size() > 1},
                               {"processes", variant.second}});
            }
        }
        tool.output().table(table);
        missing.tell(tool.output());
        tool.output().document({{"classes", all}, {"missing", missing.json()}});
    }

    std::string process_;
    std::string pattern_;
    using Variants = std::map<std::uint64_t, std::vector<std::string>>;  // by hash: who knows it so
    std::map<std::pair<std::string, unsigned int>, Variants> variants_;  // by name and id
};

class Describe final : public Command {
public:
    Describe() : Command("describe", "Show what is known of a class") {}

    void declare(Options& options) override {
        options.word("class", class_, true, "CLASS: its name, a pattern, or its id as 0x...");
        options.text("--process", "PROCESS", process_, "As this process knows it");
        options.flag("--idl", idl_, "Write it as IDL, for the interface compiler");
    }

    ExitCode run(Tool& tool) override {
        Descriptions const found = find(tool);
        if (idl_)
            tellIdl(tool.output(), found);
        else
            tell(tool.output(), found);
        return ExitCode::kDone;
    }

private:
    /** With a pattern: each class that it tells; else the class and what belongs to it. */
    Descriptions find(Tool& tool) const {
        Processes const processes = select(tool.processes(), process_);
        if (Wildcard::isIn(class_))
            return describedBy(tool, processes, class_);
        bool const isNumber = class_.rfind("0x", 0) == 0;
        auto const id =
            static_cast<unsigned int>(isNumber ? std::strtoul(class_.c_str(), nullptr, 16) : 0);
        auto const answers = askProcessObjects<Descriptions>(
            tool.asking(), processes,
            [isNumber, id, name = class_](TreflectProcessClient const& client) {
                return valueOf(isNumber ? client.describe(id) : client.describeNamed(name));
            });
        bool isSilent = false;
        for (Answer<Descriptions> const& answer : answers) {
            if (answer && !answer.value.empty())
                return answer.value;
            isSilent = isSilent || answer.timedOut();
        }
        throw Failure(isSilent ? ExitCode::kTimedOut : ExitCode::kNotThere,
                      "no process that answers knows a class \"" + class_ + "\"");
    }

    void tell(Output& output, Descriptions const& found) const {
        std::size_t const shown = Wildcard::isIn(class_) ? found.size() : 1;
        for (std::size_t i = 0; i < shown; ++i)
            tellTable(output, found[i]);
        output.document({{"classes", jsonOf(found)}});
    }

    void tellIdl(Output& output, Descriptions const& found) const {
        std::string const text = idlOf(found);
        output.verbatim(text);
        output.document({{"class", found.front().name}, {"idl", text}});
    }

    static void tellTable(Output& output, TreflectClassDescription const& described) {
        output.heading(described.name);
        for (std::string const& line : linesOf(described.doc))
            output.line("  " + line);
        Table table({{""}, {""}, {""}});
        table.add({"id", fmt::format("0x{:08X}", described.id), ""});
        table.add({"hash", fmt::format("{:016x}", described.hash), ""});
        for (auto const& base : described.bases)
            table.add({"base", base.name, ""});
        for (auto const& type : described.types)
            table.add({"type", type, ""});
        for (auto const& attribute : described.attributes)
            table.add({"attribute",
                       attribute.name + " " + typeOf(described, attribute.name) +
                           (attribute.writable ? "" : " read-only"),
                       firstLineOf(attribute.doc)});
        for (auto const& operation : described.operations)
            table.add({"operation", signatureOf(operation), firstLineOf(operation.doc)});
        output.indented(table);
    }

    std::string class_;
    std::string process_;
    bool idl_ = false;
};

}  // namespace

std::unique_ptr<Command> makeClasses() {
    return std::make_unique<Classes>();
}
std::unique_ptr<Command> makeDescribe() {
    return std::make_unique<Describe>();
}
