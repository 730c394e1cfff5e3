// Calls of an operation: who makes them, with what, and what comes of them.
#pragma once

#include <reflect.h>
#include <reflect/TreflectCallOutcome.h>

#include <functional>
#include <string>

#include "Json.h"
#include "Values.h"

/** What has come of a call. A value. */
struct Fate {
    enum class Kind : unsigned int {
        kEnded,     // no more is known
        kDone,      // with its results
        kRefused,   // by the object
        kForbidden  // by an observer
    };
    Kind kind = Kind::kEnded;
    unsigned int code = 0;  // of a refusal
    TipprmiAny fields;      // of the exception that tells its reason, encoded

    /** "done", "refused", "vetoed", "ended" */
    char const* name() const;
    bool isRefusal() const { return kind == Kind::kRefused || kind == Kind::kForbidden; }
    /** How it was refused, in words: "refused with code 5, Lamp::TooBright {limit: 100}"; empty
     * when it was not. `exception`: the type that the class tells for the code; may be invalid. */
    std::string text(TreflectParameterType const& exception) const;
};

/** The name of the type of an exception; empty for an invalid one. */
std::string nameOfException(TreflectParameterType const& type);

/** A call as an observer hears of it. A value. */
struct HeardCall {
    unsigned int number = 0;  // in the object's process; 0 when that is not known
    std::string caller;       // the process; empty likewise
    Values values;            // arguments; of one that has ended its results
};

/**
 * Hears of the calls of an operation. Whoever calls waits for it. Made, used and destroyed under
 * the run permission.
 */
class CallObserver final : public TreflectObserver {
public:
    using Begun = std::function<void(HeardCall const& call)>;
    using Ended = std::function<void(HeardCall const& call, Fate const& fate)>;

    /** Either of the two may be empty. */
    CallObserver(Begun begun, Ended ended) : begun_(std::move(begun)), ended_(std::move(ended)) {}

    /** Registers it; whether the object has answered. */
    bool observe(TreflectObject const& object, TreflectMetaOperation const& operation);

    bool notify(TreflectObject const& source, unsigned int const& classId,
                unsigned int const& methodCode, Values const& told, bool& alive) override;
    bool update() override { return true; }

private:
    void hearOfBegin(Values const& told) const;
    void hearOfEnd(Values const& told) const;

    Begun const begun_;
    Ended const ended_;
    unsigned int methodCode_ = 0;
    unsigned int arguments_ = 0;  // how many the operation takes
};
