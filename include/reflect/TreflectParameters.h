#pragma once

#include "ipprmi/TipprmiAny.h"
#include "ipprmi/TipprmiOutcome.h"
#include "ipprmi/TipprmiResult.h"
#include "ipprmi/TipprmiSequence.h"

/** What observers are told of a call: its arguments before, its results after, each in an any. */
class TreflectParameters {
public:
    /** Replaces all values, in their order; each has a stream operator. */
    template <class... Values>
    void set(Values const&... values) {
        fill(sequence_, values...);
    }
    /** The result of a call, which may be a refusal: then there is none. */
    template <class T>
    void setResult(T const& result) {
        set(result);
    }
    template <class T>
    void setResult(TipprmiResult<T> const& result) {
        set();
        if constexpr (!std::is_void_v<T>) {
            if (result)
                set(result.value());
        }
    }
    template <class T, class... Exceptions>
    void setResult(TipprmiOutcome<T, Exceptions...> const& outcome) {
        TipprmiResult<T> const& result = outcome;
        setResult(result);
    }
    /** The values, as observers are told them. */
    TipprmiSequence<TipprmiAny, 0u> const& sequence() const { return sequence_; }

    /** Makes `sequence` hold these values and nothing else. */
    template <class... Values>
    static void fill(TipprmiSequence<TipprmiAny, 0u>& sequence, Values const&... values) {
        sequence.setLength(0);
        (append(sequence, values), ...);
    }
    /** Adds one value behind the others. */
    template <class T>
    static void append(TipprmiSequence<TipprmiAny, 0u>& sequence, T const& value) {
        TipprmiAny any;
        any.insert(value);
        sequence.push_back(any);
    }

private:
    TipprmiSequence<TipprmiAny, 0u> sequence_;
};
