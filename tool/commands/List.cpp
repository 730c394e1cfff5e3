// reflectorb list: the objects of the group.
#include <algorithm>

#include "Commands.h"
#include "Wildcard.h"

namespace {

constexpr unsigned int kObserverClass = 0x641E8FCD;  // of all observers, see the wire format

class List final : public Command {
public:
    List() : Command("list", "List the roots of the trees of names, or all objects") {}

    void declare(Options& options) override {
        options.flag("-a,--all", all_, "Every object, not the roots alone");
        options.text("--class", "CLASS", class_, "Those whose class this is, or matches");
        options.text("--process", "PROCESS", process_, "Those of a process: actor, pid or both");
    }

    ExitCode run(Tool& tool) override {
        Processes const wanted = select(tool.processes(), process_);
        Forest const& forest = tool.objects().all();
        std::vector<Row> rows;
        for (auto const& entry : forest.nodes()) {
            if (isWanted(entry.second) && ownerOf(wanted, entry.first.broker))
                rows.push_back({forest.nameOf(entry.first), entry.first, &entry.second});
        }
        std::sort(rows.begin(), rows.end(), [](Row const& a, Row const& b) {
            return a.name != b.name ? a.name < b.name : a.place < b.place;
        });
        tell(tool, rows);
        ExitCode const heard = tool.objects().missing().outcome();
        if (class_.empty() || !rows.empty())
            return heard;
        tool.output().complain("there is no object of the class \"" + class_ + "\"");
        return heard == ExitCode::kDone ? ExitCode::kNotThere : heard;
    }

private:
    struct Row {
        std::string name;
        Place place;
        Node const* node;
    };

    bool isWanted(Node const& node) const {
        if (!class_.empty())
            return Wildcard(class_).matches(node.className);
        return all_ || (node.isReflective && !node.parent && node.classId != kObserverClass &&
                        node.classId != processobject::kClass);
    }

    static void tell(Tool& tool, std::vector<Row> const& rows) {
        Table table({{"NAME"}, {"CLASS"}, {"IDENTIFIER"}, {"PROCESS"}});
        Json all = Json::array();
        for (Row const& row : rows) {
            std::string const process = nameOfOwner(tool.processes(), row.place.broker);
            std::string const className = !row.node->answers       ? "does not answer"
                                          : row.node->isReflective ? row.node->className
                                                                   : "(not reflective)";
            table.add({row.name, className, row.node->identifier, process});
            all.push_back({{"name", row.name},
                           {"class", row.node->className},
                           {"identifier", row.node->identifier},
                           {"reflective", row.node->isReflective},
                           {"answers", row.node->answers},
                           {"process", process},
                           {"broker", row.place.broker},
                           {"id", row.place.id}});
        }
        tool.output().table(table);
        tool.objects().missing().tell(tool.output());
        tool.output().document({{"objects", all}, {"missing", tool.objects().missing().json()}});
    }

    bool all_ = false;
    std::string class_;
    std::string process_;
};

}  // namespace

std::unique_ptr<Command> makeList() {
    return std::make_unique<List>();
}
