// reflectorb get, set and call: members by their names.
#include "Commands.h"
#include "Members.h"
#include "Wildcard.h"

namespace {

bool isOne(std::vector<std::string> const& paths) {
    return paths.size() == 1 && !Wildcard::isIn(paths.front());
}

class Get final : public Command {
public:
    Get() : Command("get", "Show values of attributes") {}

    void declare(Options& options) override {
        options.words("attribute", paths_, true, "OBJECT/ATTRIBUTE...");
    }
    ExitCode run(Tool& tool) override {
        auto const done =
            useMembers(tool, paths_, Kind::kAttributes,
                       [](TreflectObject const& object, std::string const& name) {
                           return std::optional(readAttribute(attributeOf(object, name)));
                       });
        return tellDone(tool, done, !isOne(paths_), "values");
    }

private:
    std::vector<std::string> paths_;
};

class Set final : public Command {
public:
    Set() : Command("set", "Change values of attributes") {}

    void declare(Options& options) override {
        options.words("attribute", words_, true,
                      "OBJECT/ATTRIBUTE... VALUE: the last word is the value, for all of them");
    }
    ExitCode run(Tool& tool) override {
        if (words_.size() < 2)
            throw Failure(ExitCode::kWrongUse, "set needs OBJECT/ATTRIBUTE and VALUE");
        std::string const value = words_.back();
        words_.pop_back();
        auto const done = useMembers(
            tool, words_, Kind::kAttributes,
            [value](TreflectObject const& object, std::string const& name) {
                return setAttribute(attributeOf(object, name), [value](auto const& types) {
                    return parseValues(types, {value});
                });
            });
        return tellDone(tool, done, true, "values");
    }

private:
    std::vector<std::string> words_;
};

class Call final : public Command {
public:
    Call() : Command("call", "Call an operation") {}

    void declare(Options& options) override {
        options.words("operation", words_, true, "OBJECT/OPERATION [ARGUMENT]...");
    }
    ExitCode run(Tool& tool) override {
        std::vector<std::string> const paths{words_.front()};
        std::vector<std::string> const arguments(words_.begin() + 1, words_.end());
        auto const done = useMembers(
            tool, paths, Kind::kOperations,
            [arguments](TreflectObject const& object, std::string const& name) {
                return callForValue(operationOf(object, name), [arguments](auto const& types) {
                    return parseValues(types, arguments);
                });
            });
        return tellDone(tool, done, !isOne(paths), "calls");
    }

private:
    std::vector<std::string> words_;
};

}  // namespace

std::unique_ptr<Command> makeGet() {
    return std::make_unique<Get>();
}
std::unique_ptr<Command> makeSet() {
    return std::make_unique<Set>();
}
std::unique_ptr<Command> makeCall() {
    return std::make_unique<Call>();
}
