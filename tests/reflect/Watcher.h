#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ipprmi.h"
#include "reflect.h"

/** An observer that notes what it is told, and reacts as its test wants. All that it has is guarded
 * by the run permission. */
class Watcher : public TreflectObserver {
public:
    /** Answers for `update`; may destroy the observer. */
    using Reaction = std::function<bool(std::string const& name, TreflectObject const& source)>;

    explicit Watcher(std::string const& name = "watcher", Reaction reaction = {})
        : TreflectObserver(TipprmiOID(name, NSID_UNIT), nullptr, name),
          react(std::move(reaction)) {}

    bool update() override {
        TreflectObject const* const source = getSource();
        char const* const name = source->getStub_()->getOID().getIdString();
        told.emplace_back(name ? name : "?");
        values.clear();
        for (unsigned int i = 0, number = 0; argument(i, number); ++i)
            values.push_back(number);
        // Copies: the observer may be destroyed inside.
        Reaction const reaction = react;
        return reaction ? reaction(std::string(told.back()), *source) : answer;
    }

    bool answer = true;
    Reaction react;
    std::vector<std::string> told;     // identifiers of the objects
    std::vector<unsigned int> values;  // of the last call that it was told of
};
