#pragma once

#include <tuple>
#include <utility>

#include "ipprmi/CallHelper.h"
#include "ipprmi/TipprmiObjectClient.h"
#include "ipprmi/TipprmiOutcome.h"
#include "ipprmi/TipprmiResult.h"

/** The arguments of one call, written in their order. Keeps references. */
template <class... Arguments>
class TipprmiArguments final : public InParamHook {
public:
    /** The arguments must live until the call has been made. */
    explicit TipprmiArguments(Arguments const&... arguments) : arguments_(arguments...) {}
    void marshall(TipprmiStream& request) const override {
        std::apply([&](auto const&... argument) { tipprmi::writeAll(request, argument...); },
                   arguments_);
    }

private:
    std::tuple<Arguments const&...> arguments_;
};

/** The result of one call. */
template <class Result>
class TipprmiReturned final : public OutParamHook {
public:
    void unmarshall(TipprmiStream& response) const override { response >> value_; }
    /** The value that was read, which is moved out: ask once. */
    TipprmiResult<Result> result() const { return std::move(value_); }

private:
    mutable Result value_ = tipprmiBlank<Result>();
};

template <>
class TipprmiReturned<void> final : public OutParamHook {
public:
    void unmarshall(TipprmiStream&) const override {}
    TipprmiResult<void> result() const { return {}; }
};

/** Performs a call through ClientCallHelper. True on success; else `failure` says why. */
REFLECTORB_API bool tipprmiPerform(TipprmiObjectClient const& object, InParamHook const& in,
                                   OutParamHook const& out, unsigned int cc, unsigned int mc,
                                   bool withResponse, TipprmiFailure& failure);
/** The same for a call with a response; `exception` is the container that began it. */
REFLECTORB_API bool tipprmiPerform(TipprmiObjectClient const& object, InParamHook const& in,
                                   OutParamHook const& out, unsigned int cc, unsigned int mc,
                                   TipprmiFailure& failure, TipprmiExceptionContainer& exception);

/**
 * Calls a method of an object, wherever it lives, and waits for the result: what the methods of a
 * client class are made of.
 *
 *     TipprmiResult<unsigned int> Cpu::load() const {
 *         return tipprmiCall<unsigned int>(*this, kCpuClass, kLoad);
 *     }
 *
 * The arguments are of types that can be written to a stream, the result is void or of a type that
 * can be read from one; a method with several results returns a struct with an operator of its own.
 * Call it with the run permission, which is given up while the call waits for another process.
 */
template <class Result, class... Arguments>
TipprmiResult<Result> tipprmiCall(TipprmiObjectClient const& object, unsigned int cc,
                                  unsigned int mc, Arguments const&... arguments) {
    TipprmiReturned<Result> const returned;
    TipprmiFailure failure;
    if (!tipprmiPerform(object, TipprmiArguments<Arguments...>(arguments...), returned, cc, mc,
                        true, failure))
        return failure;
    return returned.result();
}

/** The same for a method that may raise exceptions; `Outcome` is a TipprmiOutcome. */
template <class Outcome, class... Arguments>
Outcome tipprmiRaisingCall(TipprmiObjectClient const& object, unsigned int cc, unsigned int mc,
                           Arguments const&... arguments) {
    TipprmiReturned<typename Outcome::Value> const returned;
    TipprmiFailure failure;
    TipprmiExceptionContainer exception;
    if (!tipprmiPerform(object, TipprmiArguments<Arguments...>(arguments...), returned, cc, mc,
                        failure, exception))
        return Outcome(failure, exception);
    return returned.result();
}

/** The same for a call that nobody answers: success means that it is on its way. */
template <class... Arguments>
TipprmiResult<void> tipprmiSend(TipprmiObjectClient const& object, unsigned int cc, unsigned int mc,
                                Arguments const&... arguments) {
    TipprmiReturned<void> const nothing;
    TipprmiFailure failure;
    if (!tipprmiPerform(object, TipprmiArguments<Arguments...>(arguments...), nothing, cc, mc,
                        false, failure))
        return failure;
    return {};
}
