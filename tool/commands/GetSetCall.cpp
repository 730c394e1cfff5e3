// reflectorb get, set and call: members by their names.
#include "Commands.h"
#include "Members.h"
#include "Wildcard.h"

namespace {

bool isOne(std::vector<std::string> const& paths) {
    return paths.size() == 1 && !Wildcard::isIn(paths.front());
}

/** Its words begin with a member of an object, or several. */
class OfMembers : public Command {
public:
    void declare(Options& options) final { options.words(what_, words_, true, usage_); }

protected:
    OfMembers(char const* name, char const* help, char const* what, char const* usage)
        : Command(name, help), what_(what), usage_(usage) {}

    std::vector<std::string> words_;

private:
    char const* const what_;
    char const* const usage_;
};

class Get final : public OfMembers {
public:
    Get() : OfMembers("get", "Show values of attributes", "attribute", "OBJECT/ATTRIBUTE...") {}

    ExitCode run(Tool& tool) override {
        auto const done =
            useMembers(tool, words_, Kind::kAttributes,
                       [](TreflectObject const& object, std::string const& name) {
                           return std::optional(readAttribute(attributeOf(object, name)));
                       });
        return tellDone(tool, done, !isOne(words_), "values");
    }
};

class Set final : public OfMembers {
public:
    Set()
        : OfMembers("set", "Change values of attributes", "attribute",
                    "OBJECT/ATTRIBUTE... VALUE: the last word is the value, for all of them") {}

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
};

class Call final : public OfMembers {
public:
    Call()
        : OfMembers("call", "Call an operation", "operation", "OBJECT/OPERATION [ARGUMENT]...") {}

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
