#pragma once

#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include "ipprmi/TipprmiObjectBase.h"
#include "ipprmi/TipprmiOutcome.h"
#include "ipprmi/TipprmiResult.h"

class TipprmiObjectClient;
class TreflectORB;
class TreflectServerObject;

/**
 * Server side of an object: registered with the broker of its identifier's namespace from
 * construction to destruction. Build and destroy skeletons holding the run permission; `dispatch`
 * is called with it. A function that waits gives the permission up: the object must outlive it,
 * unless it is a TreflectServerObject, which may be destroyed meanwhile by who touches nothing of
 * it afterwards. A resource: neither copied nor moved.
 *
 * Most objects derive from a skeleton that the interface compiler has written or TreflectInterface
 * makes, which have a table of the class and dispatch by it:
 *
 *     class LampSkeleton : public TreflectInterface<LampSkeleton> {
 *     public:
 *         using TreflectInterface::TreflectInterface;
 *
 *         virtual void switchOn() = 0;
 *
 *         static constexpr auto interface() {
 *             return describe("Lamp", 0x4C414D50, op<&LampSkeleton::switchOn>("switchOn", 1));
 *         }
 *     };
 *
 * One that needs neither a class nor a name derives from this class, overrides `dispatch`, serves
 * its own method codes and passes the rest on:
 *
 *     bool Lamp::dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
 *                         TipprmiStream& out) {
 *         switch (mc) {
 *         case kSwitchOn: return serve(cc, mc, in, out, &Lamp::switchOn);
 *         default: return TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
 *         }
 *     }
 *
 * Virtual operations after those of the base: connect, getClient.
 */
class REFLECTORB_API TipprmiObjectSkeleton : public TipprmiObjectBase {
public:
    /** Takes the identifier as it is; nobody finds the object before it is connected to a
     * broker. */
    explicit TipprmiObjectSkeleton(TipprmiOID const& oid);
    /** As above: `orb` is of no account, the object joins the broker of its identifier's namespace.
     */
    TipprmiObjectSkeleton(TreflectORB* orb, TipprmiOID const& oid);
    TipprmiObjectSkeleton(TipprmiObjectSkeleton const&) = delete;
    TipprmiObjectSkeleton& operator=(TipprmiObjectSkeleton const&) = delete;
    /** Leaves the broker and makes every stub of this process that led here invalid: handles that
     * are left answer with failures. */
    ~TipprmiObjectSkeleton() override;

    /** Any thread. 0 when the broker has gone. */
    TreflectOrbId orbId() const override;
    /** Serves 2100 (set the exception container) and 2101 (get it); logs any other at level 3. */
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;
    /** The container that starts every response of this object. */
    void setExceptionContainer(TipprmiExceptionContainer const& container) override;
    TipprmiExceptionContainer getExceptionContainer() const override;
    /** Joins `orb`, or the broker of the identifier's namespace when null, leaving the present one.
     * The object's own client handle is made anew when next asked for. */
    virtual void connect(TreflectORB* orb, TipprmiOID const& oid);
    /** The object's own client handle, made when first asked for; owned by the skeleton. Any
     * thread. */
    virtual TipprmiObjectClient* getClient() const;

    /** The broker that serves the object, which is not owned; null while it is served by none. */
    TreflectORB* getORB() const { return orb_; }
    /** For the broker: which one it is. Registers nothing. */
    void setORB(TreflectORB* orb) { orb_ = orb; }
    /** This object, if it is a reflective one; else null. */
    TreflectServerObject* reflective() const { return reflective_; }

protected:
    /** Starts a response with the skeleton's exception container; every response begins so. */
    void prepareResponseStream_(TipprmiStream& out) const;

    /**
     * Serves a call by a member function: reads its parameters from `in`, in their order, calls it,
     * and writes the response. Parameters are values or references to const of types that can be
     * read from a stream; one of type std::string_view or TipprmiByteView shows a text or bytes
     * where they have arrived, without a copy, until the function returns. The result is void, a
     * type that can be written, a reference to a const one, or a TipprmiResult or TipprmiOutcome,
     * with which the function may refuse the call. False, with a log line, when the arguments
     * cannot be read; the function is not called then.
     */
    template <class Server, class Result, class... Parameters>
    bool serve(unsigned int cc, unsigned int mc, TipprmiStream& in, TipprmiStream& out,
               Result (Server::*method)(Parameters...)) {
        return serveBy<Result, Parameters...>(
            cc, mc, in, out,
            [&](auto&&... arguments) -> Result {
                return (static_cast<Server*>(this)->*method)(
                    std::forward<decltype(arguments)>(arguments)...);
            },
            [] { return false; });
    }
    template <class Server, class Result, class... Parameters>
    bool serve(unsigned int cc, unsigned int mc, TipprmiStream& in, TipprmiStream& out,
               Result (Server::*method)(Parameters...) const) {
        return serveBy<Result, Parameters...>(
            cc, mc, in, out,
            [&](auto&&... arguments) -> Result {
                return (static_cast<Server const*>(this)->*method)(
                    std::forward<decltype(arguments)>(arguments)...);
            },
            [] { return false; });
    }

    /** Reads the arguments of a call; false, with a log line, when they cannot be read. */
    template <class... Arguments>
    static bool readArguments(unsigned int cc, unsigned int mc, TipprmiStream& in,
                              std::tuple<Arguments...>& arguments) {
        std::apply([&](auto&... argument) { (tipprmi::readArgument(in, argument), ...); },
                   arguments);
        if (in.hasUnmarshallingFailed())
            in.printUnmarshallError(cc, mc);
        return !in.hasUnmarshallingFailed();
    }

    /** Calls a function with arguments that nobody needs afterwards: what it takes by value is
     * moved there. */
    template <class... Parameters, class Method>
    static decltype(auto) callWith(Method const& method,
                                   std::tuple<std::decay_t<Parameters>...>& arguments) {
        return std::apply(
            [&](auto&... argument) -> decltype(auto) {
                return method(static_cast<Parameters&&>(argument)...);
            },
            arguments);
    }

    /** Serves a call by any function. `ended` answers, when that has returned, whether the
     * object is no more; it is not touched then. */
    template <class Result, class... Parameters, class Method, class Ended>
    bool serveBy(unsigned int cc, unsigned int mc, TipprmiStream& in, TipprmiStream& out,
                 Method const& method, Ended const& ended) const {
        auto arguments = tipprmiBlanks<std::decay_t<Parameters>...>();
        if (!readArguments(cc, mc, in, arguments))
            return false;
        if constexpr (std::is_void_v<Result>) {
            callWith<Parameters...>(method, arguments);
            respondWith(ended() ? nullptr : &exceptionContainer_, out, TipprmiResult<void>());
        } else {
            auto const& result = callWith<Parameters...>(method, arguments);
            respondWith(ended() ? nullptr : &exceptionContainer_, out, result);
        }
        return true;
    }

    /** Writes a whole response: the result of a call, or its refusal. */
    template <class T>
    void respond(TipprmiStream& out, T const& result) const {
        respondWith(&exceptionContainer_, out, result);
    }
    /** The same for an object that is no more, whose exception container has gone with it. */
    template <class T>
    static void respondWithoutObject(TipprmiStream& out, T const& result) {
        respondWith(nullptr, out, result);
    }

    /** Says that this is the reflective object `object`. */
    void setReflective(TreflectServerObject* object) { reflective_ = object; }

    mutable std::unique_ptr<TipprmiObjectClient> client_;  // guarded by the run permission

private:
    static void startResponse(TipprmiExceptionContainer const* container, TipprmiStream& out) {
        TipprmiExceptionContainer const none;
        out << (container ? *container : none);
    }
    template <class T>
    static void respondWith(TipprmiExceptionContainer const* container, TipprmiStream& out,
                            T const& value) {
        startResponse(container, out);
        tipprmi::writeAll(out, value);
    }
    template <class T>
    static void respondWith(TipprmiExceptionContainer const* container, TipprmiStream& out,
                            TipprmiResult<T> const& result) {
        if (!result) {
            writeGeneralException(out, result.code());
            return;
        }
        startResponse(container, out);
        if constexpr (!std::is_void_v<T>)
            tipprmi::writeAll(out, result.value());
    }
    template <class T, class... Exceptions>
    static void respondWith(TipprmiExceptionContainer const* container, TipprmiStream& out,
                            TipprmiOutcome<T, Exceptions...> const& outcome) {
        TipprmiResult<T> const& result = outcome;
        if (!outcome.writeRaised(out))
            respondWith(container, out, result);
    }

    TreflectServerObject* reflective_ = nullptr;  // guarded by the run permission
    TreflectORB* orb_ = nullptr;  // guarded by the run permission; null when its broker has gone
    TipprmiExceptionContainer exceptionContainer_;  // guarded by the run permission
};
