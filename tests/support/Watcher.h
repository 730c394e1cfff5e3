#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Permitted.h"

/** An observer that notes what it is told, and reacts as its test wants. All that it has is guarded
 * by the run permission. */
class Watcher : public TreflectObserver {
public:
    /** What it does, while `getSource` is there; may destroy the observer. */
    using Reaction = std::function<void()>;

    explicit Watcher(std::string const& name = "watcher", Reaction reaction = {})
        : TreflectObserver(TipprmiOID(name, NSID_UNIT), nullptr, name),
          react(std::move(reaction)) {}
    ~Watcher() override { *alive_ = false; }

    bool update() override {
        told.push_back(nameOf(*getSource()));
        values.clear();
        for (unsigned int i = 0, number = 0; argument(i, number); ++i)
            values.push_back(number);
        auto const alive = alive_;
        if (Reaction const reaction = react)
            reaction();
        return !*alive || answer;
    }

    bool answer = true;
    Reaction react;
    std::vector<std::string> told;     // identifiers of the objects
    std::vector<unsigned int> values;  // of the last call that it was told of

private:
    std::shared_ptr<bool> const alive_ = std::make_shared<bool>(true);
};
