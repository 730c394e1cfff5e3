#pragma once

#include <optional>

#include "ipprmi/TipprmiAny.h"
#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiSequence.h"
#include "reflect/TreflectMetaOperation.h"

/**
 * What has come of a call, for observers that want to know more than its results: who has made it,
 * whether it was refused, and by what. An observer hears of it after the call when it is registered
 * for the operation's outcome as well as for the operation itself before calls:
 *
 *     TreflectMetaOperation const outcome = TreflectCallOutcome::of(*blink.meta());
 *     blink.preObserve(&observer);
 *     stub->observe(TreflectObservable::kAfterCalls, &outcome, &observer);
 *
 * Before the call it is told the number and the caller of the call behind the arguments
 * (`begunCall`), after it what `read` makes of what it is told: of a call that was forbidden, and
 * of one that was refused, too. Not of one that threw. Which of both it is tells the method code
 * that TreflectObserver::notify gets. Others who observe the operation are told what they always
 * are, and an object of an earlier version of the library tells of no outcome.
 */
struct TreflectCallOutcome {
    /** Changes the method code of an operation into that of its outcome, which is the code of no
     * operation. */
    static constexpr unsigned int kMark = 0x40000000;

    /** A call that has begun. */
    struct Begun {
        unsigned int number = 0;  ///< of this call, for the process of the object; never 0
        unsigned int caller = 0;  ///< the broker from which it came, as TreflectOrbId::value tells
    };

    Begun call;            ///< the one that has ended
    bool isKnown = false;  ///< whether `exception` tells anything: nobody was answered otherwise
    TipprmiExceptionContainer exception;        ///< what the caller was answered
    TipprmiSequence<TipprmiAny, 0u> results{};  ///< none of a call that was refused

    /** What observers of an operation's outcome are registered for. */
    static TreflectMetaOperation of(TreflectMetaOperation const& operation) {
        return TreflectMetaOperation(operation.name(), operation.containingMetaObject(),
                                     static_cast<int>(codeOf(operation.id())));
    }
    /** The method code of the outcome of the operation with that code, and the other way round. */
    static unsigned int codeOf(int code) { return static_cast<unsigned int>(code) ^ kMark; }

    /** The call that `told` is about, which stands behind its `arguments` arguments; nothing when
     * it does not. */
    static std::optional<Begun> begunCall(TipprmiSequence<TipprmiAny, 0u> const& told,
                                          unsigned int arguments) {
        Begun begun;
        bool const isThere = told.getLength() == arguments + 2 &&
                             take(told, arguments, begun.number) &&
                             take(told, arguments + 1, begun.caller);
        return isThere ? std::optional<Begun>(begun) : std::nullopt;
    }
    /** The outcome that `told` is about; nothing when it is about none. */
    static std::optional<TreflectCallOutcome> read(TipprmiSequence<TipprmiAny, 0u> const& told) {
        constexpr unsigned int kAheadOfResults = 4;
        TreflectCallOutcome outcome;
        if (!take(told, 0, outcome.call.number) || !take(told, 1, outcome.call.caller) ||
            !take(told, 2, outcome.isKnown) || !take(told, 3, outcome.exception))
            return std::nullopt;
        outcome.results.setLength(told.getLength() - kAheadOfResults);
        for (unsigned int i = 0; i < outcome.results.getLength(); ++i)
            outcome.results[i] = told[i + kAheadOfResults];
        return outcome;
    }

private:
    template <class T>
    static bool take(TipprmiSequence<TipprmiAny, 0u> const& told, unsigned int at, T& value) {
        if (at >= told.getLength())
            return false;
        TipprmiAny encoded = told[at];
        encoded.extract(value);
        return !encoded.hasUnmarshallingFailed();
    }
};
