// reflectorb complete: what the word at the end of a command line may become, for shells.
#include <set>

#include "Commands.h"
#include "Members.h"

namespace {

enum class Wanted {
    kNothing,
    kObjects,
    kObjectsAndClasses,
    kAttributes,
    kOperations,
    kMembers,
    kProcesses,
    kClasses
};

/** What the words of a subcommand are. */
Wanted wordsOf(std::string const& command) {
    static std::map<std::string, Wanted> const words{
        {"tree", Wanted::kObjects},     {"show", Wanted::kObjects},
        {"get", Wanted::kAttributes},   {"set", Wanted::kAttributes},
        {"call", Wanted::kOperations},  {"watch", Wanted::kMembers},
        {"veto", Wanted::kMembers},     {"processes", Wanted::kProcesses},
        {"calls", Wanted::kProcesses},  {"log", Wanted::kProcesses},
        {"diff", Wanted::kProcesses},   {"classes", Wanted::kClasses},
        {"describe", Wanted::kClasses}, {"record", Wanted::kObjectsAndClasses}};
    auto const found = words.find(command);
    return found == words.end() ? Wanted::kNothing : found->second;
}

Wanted valueOfOption(std::string const& option) {
    if (option == "--process")
        return Wanted::kProcesses;
    if (option == "--class")
        return Wanted::kClasses;
    if (option == "--only")
        return Wanted::kOperations;
    return option == "--below" || option == "--to" ? Wanted::kObjects : Wanted::kNothing;
}

class Complete final : public Command {
public:
    Complete() : Command("complete", "Print what the last word may become, for shells") {}

    bool isHidden() const override { return true; }
    void declare(Options& options) override {
        options.words("words", words_, true, "-- SUBCOMMAND WORD...");
    }

    ExitCode run(Tool& tool) override {
        if (words_.size() < 2)
            return ExitCode::kDone;
        Wanted const value = valueOfOption(words_[words_.size() - 2]);
        Wanted const wanted = value == Wanted::kNothing ? wordsOf(words_.front()) : value;
        std::string const word = words_.back();
        std::set<std::string> all;
        switch (wanted) {
            case Wanted::kNothing:
                break;
            case Wanted::kProcesses:
                for (Process const& process : tool.processes())
                    all.insert(process.name());
                break;
            case Wanted::kClasses:
                addClasses(tool, all);
                break;
            case Wanted::kObjectsAndClasses:
                addClasses(tool, all);
                addObjects(tool, word, all);
                break;
            default:
                addObjects(tool, word, all);
                if (wanted != Wanted::kObjects)
                    addMembers(tool, word, wanted, all);
        }
        for (std::string const& one : all) {
            if (one.compare(0, word.size(), word) == 0 && cut(one, 0) == one)
                tool.output().verbatim(one + "\n");
        }
        return ExitCode::kDone;
    }

private:
    static void addClasses(Tool& tool, std::set<std::string>& all) {
        using Known = std::vector<processobject::KnownClass>;
        for (Answer<Known> const& answer : askProcessObjects<Known>(
                 tool.asking(), tool.processes(),
                 [](TreflectProcessClient const& client) { return valueOf(client.classes()); })) {
            for (processobject::KnownClass const& known : answer.value)
                all.insert(known.name);
        }
    }
    static void addObjects(Tool& tool, std::string const& word, std::set<std::string>& all) {
        Forest const& forest = tool.objects().all();
        for (auto const& entry : forest.nodes()) {
            if (!entry.second.isReflective || entry.second.name.empty())
                continue;
            bool const isPath = word.empty() || word[0] == '/';
            all.insert(isPath ? forest.nameOf(entry.first) : entry.second.identifier);
        }
    }
    /** Those of the object ahead of the last "/". */
    static void addMembers(Tool& tool, std::string const& word, Wanted wanted,
                           std::set<std::string>& all) {
        std::size_t const end = word.rfind('/');
        if (end == std::string::npos || end == 0)
            return;
        std::string const object = word.substr(0, end);
        try {
            for (Found const& found : tool.objects().find(object)) {
                for (std::string const& name : membersOf(tool, found.place, wanted))
                    all.insert(object + "/" + name);
            }
        } catch (Failure const&) {
            return;  // no such object: no such members
        }
    }
    static std::vector<std::string> membersOf(Tool& tool, Place place, Wanted wanted) {
        using Names = std::vector<std::string>;
        auto const answers = tool.asking().each<Names>(
            {TreflectOrbId(place.broker)}, [place, wanted](std::size_t) -> std::optional<Names> {
                TreflectObject const object = handleOn(place);
                TreflectMetaObject const* const meta = object.meta();
                Names names;
                if (meta && wanted != Wanted::kOperations) {
                    for (TreflectMetaAttribute const* const attribute : attributesOf(*meta))
                        names.push_back(attribute->name());
                }
                if (meta && wanted != Wanted::kAttributes) {
                    for (TreflectMetaOperation const* const operation : operationsOf(*meta))
                        names.push_back(operation->name());
                }
                return names;
            });
        return answers.front().value;
    }

    std::vector<std::string> words_;
};

}  // namespace

std::unique_ptr<Command> makeComplete() {
    return std::make_unique<Complete>();
}
