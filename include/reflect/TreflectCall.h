#pragma once

#include <tuple>
#include <type_traits>
#include <utility>

#include "ipprmi/TipprmiCall.h"
#include "reflect/TreflectObject.h"
#include "reflect/TreflectParameters.h"
#include "reflect/TreflectServerObject.h"

/** What a server object's function yields to a caller: T of a TipprmiResult<T>, else T itself; and
 * what the call of it yields, which is a TipprmiResult, or the function's own TipprmiOutcome. */
template <class T>
struct TreflectValueOf {
    using Type = T;                   ///< the value
    using Result = TipprmiResult<T>;  ///< what the call yields
};
template <class T>
struct TreflectValueOf<T const&> : TreflectValueOf<T> {};
template <class T>
struct TreflectValueOf<TipprmiResult<T>> : TreflectValueOf<T> {};
/** That of a function that may refuse with exceptions. */
template <class T, class... Exceptions>
struct TreflectValueOf<TipprmiOutcome<T, Exceptions...>> {
    using Type = T;                                   ///< the value
    using Result = TipprmiOutcome<T, Exceptions...>;  ///< what the call yields
};
/** What a call yields, see TreflectValueOf. */
template <class T>
using TreflectResultOf = typename TreflectValueOf<T>::Result;

/** The server object that a client class's call leads to when it lives in this process and is of
 * the right class; null otherwise. */
template <class Server>
Server* treflectLocal(TreflectObject const& object) {
    TipprmiObjectSkeleton* const skeleton = object.getServer();
    return skeleton ? dynamic_cast<Server*>(skeleton->reflective()) : nullptr;
}

/** Calls a function of a server object of this process, with its observers told. */
template <class Server, class Method, class Result, class... Arguments>
class TreflectLocalCall final : public ClientCallHookBaseV {
public:
    /** Keeps references: object and arguments must live until the call has been made. */
    TreflectLocalCall(Server& server, Method method, Arguments const&... arguments)
        : server_(server), method_(method), arguments_(arguments...) {}

    void callServer(TreflectServerObject&) const override {
        std::apply(
            [&](auto const&... argument) {
                if constexpr (std::is_void_v<Result>)
                    (server_.*method_)(argument...);
                else
                    result_ = (server_.*method_)(argument...);
            },
            arguments_);
        called_ = true;
    }
    void fillParams(TipprmiSequence<TipprmiAny, 0u>& params) const override {
        std::apply([&](auto const&... argument) { TreflectParameters::fill(params, argument...); },
                   arguments_);
    }
    void insertResult(TipprmiSequence<TipprmiAny, 0u>& params) const override {
        if constexpr (!std::is_void_v<Value>) {
            if (result_)
                TreflectParameters::append(params, result_.value());
        }
    }
    char const* operationName() const override { return "treflectCall"; }

    using Value = typename TreflectValueOf<Result>::Type;  ///< what the function yields
    using Outcome = TreflectResultOf<Result>;              ///< what the call yields
    /** `isThere`: whether the object was there to the end. */
    Outcome result(bool isThere) const {
        if (!called_)
            return TipprmiFailure(isThere ? TipprmiFailure::kVetoed : TipprmiFailure::kNotServed);
        if constexpr (std::is_void_v<Result>)
            return {};
        else
            return std::move(result_);
    }

private:
    Server& server_;
    Method const method_;
    std::tuple<Arguments const&...> const arguments_;
    mutable bool called_ = false;
    mutable Outcome result_{TipprmiFailure()};
};

/** Performs a call on a server object of this process; false when the object was destroyed while an
 * observer was told. */
REFLECTORB_API bool treflectPerformLocally(ClientCallHookBaseV const& hook,
                                           TreflectObject const& object,
                                           TreflectServerObject& server, unsigned int cc,
                                           unsigned int mc);

/** Calls a function that yields `Result` wherever its object lives. */
template <class Result, class... Arguments>
TreflectResultOf<Result> treflectPerformByStreams(TreflectObject const& object, unsigned int cc,
                                                  unsigned int mc, Arguments const&... arguments) {
    using Value = typename TreflectValueOf<Result>::Type;  ///< what the function yields
    using Outcome = TreflectResultOf<Result>;              ///< what the call yields
    if constexpr (std::is_same_v<Outcome, TipprmiResult<Value>>)
        return tipprmiCall<Value>(object, cc, mc, arguments...);
    else
        return tipprmiRaisingCall<Outcome>(object, cc, mc, arguments...);
}

/** Calls `method` of the object directly when it lives in this process, else through the streams.
 */
template <class Server, class Result, class Method, class... Arguments>
TreflectResultOf<Result> treflectPerform(TreflectObject const& object, unsigned int cc,
                                         unsigned int mc, Method method,
                                         Arguments const&... arguments) {
    Server* const server = treflectLocal<Server>(object);
    if (!server)
        return treflectPerformByStreams<Result>(object, cc, mc, arguments...);
    TreflectLocalCall<Server, Method, Result, Arguments...> const hook(*server, method,
                                                                       arguments...);
    return hook.result(treflectPerformLocally(hook, object, *server, cc, mc));
}

/**
 * Calls an operation of a reflective object, wherever it lives, and waits for the result: what the
 * methods of a client class are made of. As tipprmiCall, but an object of this process is called
 * directly, by `method`, the function that serves the operation in its skeleton class:
 *
 *     TipprmiResult<unsigned int> Lamp::getLevel() const {
 *         return treflectCall(*this, lamp::kClass, lamp::kGetLevel, &LampSkeleton::getLevel);
 *     }
 *
 * The arguments are those of `method`. Refused with TipprmiFailure::kVetoed when an observer
 * forbids the call.
 */
template <class Server, class Result, class... Parameters>
TreflectResultOf<Result> treflectCall(TreflectObject const& object, unsigned int cc,
                                      unsigned int mc, Result (Server::*method)(Parameters...),
                                      std::decay_t<Parameters> const&... arguments) {
    return treflectPerform<Server, Result>(object, cc, mc, method, arguments...);
}
template <class Server, class Result, class... Parameters>
TreflectResultOf<Result> treflectCall(TreflectObject const& object, unsigned int cc,
                                      unsigned int mc,
                                      Result (Server::*method)(Parameters...) const,
                                      std::decay_t<Parameters> const&... arguments) {
    return treflectPerform<Server, Result>(object, cc, mc, method, arguments...);
}
