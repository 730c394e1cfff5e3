#pragma once

#include <utility>

#include "ipprmi/TipprmiBlank.h"

/** Why a call failed: the code of the general exception that came back, chosen by the server
 * object, or one of those below. */
struct TipprmiFailure {
    /** Nothing came back: no such object, its process has gone, or the call was not accepted. */
    static constexpr unsigned int kNotServed = 0;
    /** An answer came and could not be read as what was expected. */
    static constexpr unsigned int kUnreadable = 0xFFFFFFFF;
    /** An observer of the object has forbidden the call. */
    static constexpr unsigned int kVetoed = 0xFFFFFFFE;
    /** A value or its type, or the number of arguments, is not what the table of the object's class
     * tells; what was to be sent has not been sent. */
    static constexpr unsigned int kMismatch = 0xFFFFFFFD;
    /** No answer came in time: before a TreflectDeadline, or within a minute where
     * Transport::Setup::failOnSilence says so. Whether the call is served is unknown. */
    static constexpr unsigned int kTimedOut = 0xFFFFFFFC;

    /** A failure with one of the codes above, or with a code of the application. */
    explicit constexpr TipprmiFailure(unsigned int failureCode = kNotServed) : code(failureCode) {}

    unsigned int code;  ///< 0, or what the object or the library has answered
};

/**
 * What a call yields: a value, or the code of a failure. A client's method returns it to its
 * caller; a server object's method returns it to refuse a call with a code of its own choice.
 * A value; nothing is thrown.
 */
template <class T>
class TipprmiResult {
public:
    /** The result of a call that succeeded. */
    TipprmiResult(T value) : succeeded_(true), value_(std::move(value)) {}
    /** That of one that failed. */
    TipprmiResult(TipprmiFailure failure) : code_(failure.code) {}

    /** Whether the call succeeded. */
    explicit operator bool() const { return succeeded_; }
    /** The value; a default one when the call failed. `std::move(result).value()` and a call's own
     * result (`lamp.name().value()`) give theirs away without a copy. */
    T const& value() const& { return value_; }
    T value() && { return std::move(value_); }
    /** The value, or `other` when the call failed. */
    T valueOr(T other) const& { return succeeded_ ? value_ : std::move(other); }
    T valueOr(T other) && { return std::move(succeeded_ ? value_ : other); }
    /** The code of the failure; of no account when there is a value. */
    unsigned int code() const { return code_; }

private:
    bool succeeded_ = false;
    unsigned int code_ = TipprmiFailure::kNotServed;
    T value_ = tipprmiBlank<T>();
};

/** The same for a call without a value. */
template <>
class TipprmiResult<void> {
public:
    TipprmiResult() : succeeded_(true) {}
    /** That of one that failed. */
    TipprmiResult(TipprmiFailure failure) : code_(failure.code) {}

    /** Whether the call succeeded. */
    explicit operator bool() const { return succeeded_; }
    /** The code of the failure; of no account when the call succeeded. */
    unsigned int code() const { return code_; }

private:
    bool succeeded_ = false;
    unsigned int code_ = TipprmiFailure::kNotServed;
};
