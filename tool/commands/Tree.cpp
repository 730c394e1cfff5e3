// reflectorb tree: trees of names.
#include <algorithm>
#include <set>

#include "Commands.h"
#include "Members.h"

namespace {

class Tree final : public Command {
public:
    Tree() : Command("tree", "Show the tree of names below objects, or all trees") {}

    void declare(Options& options) override {
        options.words("object", objects_, false, "OBJECT...: where to begin");
    }

    ExitCode run(Tool& tool) override {
        if (objects_.empty()) {
            Forest const& forest = tool.objects().all();
            for (auto const& entry : forest.nodes()) {
                if (!entry.second.parent && !entry.second.children.empty())
                    tell(tool, forest, entry.first, forest.nameOf(entry.first));
            }
            tool.objects().missing().tell(tool.output());
            outcome_ = tool.objects().missing().outcome();
        }
        for (std::string const& name : objects_) {
            try {
                for (Found const& found : tool.objects().find(name))
                    tell(tool, tool.objects().below(found.place), found.place, found.name);
            } catch (Failure const& why) {
                tool.output().complain(why.what());
                outcome_ = outcome_ == ExitCode::kDone ? why.outcome() : outcome_;
                trees_.push_back({{"name", name}, {"error", errorJson(why.outcome(), why.what())}});
            }
        }
        if (tool.objects().mayMissAny()) {
            tool.objects().missing().tell(tool.output());
            outcome_ = outcome_ == ExitCode::kDone ? ExitCode::kTimedOut : outcome_;
        }
        tool.output().table(table_);
        tool.output().document({{"trees", trees_}});
        return outcome_;
    }

private:
    void tell(Tool& tool, Forest const& forest, Place root, std::string const& name) {
        told_ = {root};
        trees_.push_back(tellNode(tool, forest, root, name, 0));
    }

    Json tellNode(Tool& tool, Forest const& forest, Place place, std::string const& name,
                  unsigned int depth) {
        constexpr unsigned int kDeepest = 100;
        Node const& node = *forest.find(place);
        std::string const process = nameOfOwner(tool.processes(), place.broker);
        // It has been found just now: who tells nothing of it in time has not hung.
        bool const answers =
            node.answers || (depth == 0 && !tool.asking().isGivenUp(TreflectOrbId(place.broker)));
        table_.add({std::string(2 * depth, ' ') + name, classText(node, answers), process});
        if (!answers && depth == 0)
            outcome_ = ExitCode::kTimedOut;
        Json told = {{"name", name},
                     {"class", node.className},
                     {"answers", answers},
                     {"process", process},
                     {"children", Json::array()}};
        for (Place const child : node.children) {
            Node const* const known = forest.find(child);
            if (known && depth < kDeepest && told_.insert(child).second)
                told["children"].push_back(tellNode(tool, forest, child, known->name, depth + 1));
        }
        return told;
    }

    static std::string classText(Node const& node, bool answers) {
        if (!answers)
            return "does not answer";
        if (!node.answers)
            return "(not reflective)";
        return node.className.empty() ? "of an unknown class" : node.className;
    }

    std::vector<std::string> objects_;
    Table table_{{{"NAME"}, {"CLASS"}, {"PROCESS"}}};
    Json trees_ = Json::array();
    std::set<Place> told_;  // of one tree, which may be made wrongly and have itself in it
    ExitCode outcome_ = ExitCode::kDone;
};

}  // namespace

std::unique_ptr<Command> makeTree() {
    return std::make_unique<Tree>();
}
