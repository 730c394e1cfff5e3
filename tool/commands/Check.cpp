// reflectorb check and diff: whether all is as it should be, and alike.
#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "Commands.h"
#include "Descriptions.h"
#include "Wildcard.h"

namespace {

using processobject::Identity;
using processobject::KnownClass;

struct Facts {
    Identity identity;
    std::vector<KnownClass> classes;
};

std::optional<Facts> factsOf(TreflectProcessClient const& client) {
    TipprmiResult<Identity> const identity = client.getIdentity();
    TipprmiResult<std::vector<KnownClass>> const classes = client.classes();
    return identity && classes ? std::optional(Facts{identity.value(), classes.value()})
                               : std::nullopt;
}

/** That the folder is sound is known by then: the tool has joined the group. */
class Check final : public Command {
public:
    Check() : Command("check", "Check that all processes answer and are alike, for monitoring") {}

    void declare(Options&) override {}
    ExitCode run(Tool& tool) override {
        Processes const& processes = tool.processes();
        auto const answers = askProcessObjects<Facts>(tool.asking(), processes, factsOf);
        Missing missing;
        for (std::size_t i = 0; i < processes.size(); ++i) {
            missing.note(processes[i], answers[i]);
            if (answers[i])
                note(processes[i].name(), answers[i].value);
        }
        tellDifferences(tool.output());
        missing.tell(tool.output());
        ExitCode const outcome = missing.isAnySilent() ? ExitCode::kTimedOut
                                 : faults_.empty()     ? ExitCode::kDone
                                                       : ExitCode::kRefused;
        if (outcome == ExitCode::kDone)
            tool.output().line(fmt::format("ok: {} processes", processes.size()));
        tool.output().document({{"ok", outcome == ExitCode::kDone},
                                {"processes", processes.size()},
                                {"faults", faults_},
                                {"missing", missing.json()}});
        return outcome;
    }

private:
    using Users = std::map<std::string, std::string>;  // names of processes, by what they have

    static void add(std::string& names, std::string const& name) {
        names += (names.empty() ? "" : ", ") + name;
    }
    void note(std::string const& process, Facts const& facts) {
        add(versions_[facts.identity.version], process);
        for (KnownClass const& known : facts.classes)
            add(classes_[{known.name, known.id}][fmt::format("{:016x}", known.hash)], process);
    }
    void tellDifferences(Output& output) {
        compare(output, "versions of the library differ", versions_);
        for (auto const& known : classes_)
            compare(output, "descriptions of the class " + known.first.first + " differ",
                    known.second);
    }
    void compare(Output& output, std::string const& what, Users const& users) {
        if (users.size() < 2)
            return;
        std::string text = what;
        for (auto const& one : users)
            text += (text == what ? ": " : "; ") + one.first + " in " + one.second;
        output.complain(text);
        faults_.push_back(text);
    }

    Users versions_;
    std::map<std::pair<std::string, unsigned int>, Users> classes_;
    std::vector<std::string> faults_;
};

/** The classes of a process or of a file, by their names. */
using ByName = std::map<std::string, TreflectClassDescription>;

class Diff final : public Command {
public:
    Diff() : Command("diff", "Compare the classes of two processes, or files of descriptions") {}

    void declare(Options& options) override {
        options.word("former", former_, true,
                     "PROCESS, or a file that describe '*' --json has written");
        options.word("latter", latter_, true, "The same");
    }
    ExitCode run(Tool& tool) override {
        ByName const former = read(tool, former_);
        ByName const latter = read(tool, latter_);
        Json all = Json::array();
        auto const tell = [&](std::string const& name, std::vector<std::string> const& lines) {
            if (lines.empty())
                return;
            tool.output().heading(name);
            for (std::string const& line : lines)
                tool.output().line("  " + line);
            all.push_back({{"class", name}, {"lines", lines}});
        };
        for (auto const& one : former) {
            auto const other = latter.find(one.first);
            tell(one.first, other == latter.end()
                                ? std::vector<std::string>{"- the whole class"}
                                : TreflectClassDescription::difference(one.second, other->second));
        }
        for (auto const& one : latter) {
            if (former.count(one.first) == 0)
                tell(one.first, {"+ the whole class"});
        }
        if (all.empty())
            tool.output().note("nothing differs");
        tool.output().document({{"differences", all}});
        return all.empty() ? ExitCode::kDone : ExitCode::kRefused;
    }

private:
    static ByName read(Tool& tool, std::string const& source) {
        // A folder may have the name of a process.
        std::error_code unknown;
        std::ifstream file;
        if (!std::filesystem::is_directory(source, unknown))
            file.open(source);
        Descriptions const found = file.is_open()
                                       ? descriptionsOf(Json::parse(file, nullptr, false), source)
                                       : describedBy(tool, select(tool.processes(), source), "*");
        ByName classes;
        for (TreflectClassDescription const& described : found)
            classes[described.name] = described;
        return classes;
    }

    std::string former_;
    std::string latter_;
};

}  // namespace

std::unique_ptr<Command> makeCheck() {
    return std::make_unique<Check>();
}
std::unique_ptr<Command> makeDiff() {
    return std::make_unique<Diff>();
}
