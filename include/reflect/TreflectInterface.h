#pragma once

#include <array>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "reflect/TreflectCall.h"
#include "reflect/TreflectMetaClass.h"
#include "reflect/TreflectServerObject.h"
#include "reflect/TreflectTypeName.h"

namespace treflect {

template <class Method>
struct SignatureOf;
template <class Class_, class Result_, class... Parameters>
struct SignatureOf<Result_ (Class_::*)(Parameters...)> {
    using Class = Class_;
    using Result = typename TreflectValueOf<Result_>::Type;
    using Outcome = Result_;
    static_assert((... && (!std::is_lvalue_reference_v<Parameters> ||
                           std::is_const_v<std::remove_reference_t<Parameters>>)),
                  "arguments travel one way: return what the operation yields");
    static std::vector<std::string> argumentTypes() { return {treflectTypeName<Parameters>()...}; }
};
template <class Class_, class Result_, class... Parameters>
struct SignatureOf<Result_ (Class_::*)(Parameters...) const>
    : SignatureOf<Result_ (Class_::*)(Parameters...)> {};

/** What a function may refuse a call with, as its result tells: exceptions whose types have names.
 */
template <class Outcome>
struct RaisedBy {
    static std::vector<TreflectMetaClass::Exception> list() { return {}; }
};
template <class T, class... Exceptions>
struct RaisedBy<TipprmiOutcome<T, Exceptions...>> {
    static std::vector<TreflectMetaClass::Exception> list() {
        std::vector<TreflectMetaClass::Exception> named;
        auto const add = [&named](unsigned int code, std::string const& type) {
            if (!type.empty())
                named.push_back({code, type});
        };
        (add(Exceptions::kCode, treflectTypeName<Exceptions>()), ...);
        return named;
    }
};

/** A line of the table for the operation that `Method` serves. */
template <auto Method>
TreflectMetaClass::Operation rowOf(std::string const& name, unsigned int code) {
    using Signature = SignatureOf<decltype(Method)>;
    std::vector<std::string> results;
    if constexpr (!std::is_void_v<typename Signature::Result>)
        results.push_back(treflectTypeName<typename Signature::Result>());
    return {name, code, Signature::argumentTypes(), std::move(results),
            RaisedBy<typename Signature::Outcome>::list()};
}

/** Whether two functions are the same one. */
template <auto A, auto B>
inline constexpr bool isSameFunction =
    std::is_same_v<std::integral_constant<decltype(A), A>, std::integral_constant<decltype(B), B>>;

/** How the value of an attribute is made up of elements. */
template <class T>
struct ElementsOf {
    static TreflectMetaClass::Attribute row(char const* name) { return name; }
};
template <class T>
struct ElementsOf<std::vector<T>> {
    static TreflectMetaClass::Attribute row(char const* name) {
        return {name, TreflectMetaClass::Attribute::kSequence};
    }
};
template <>
struct ElementsOf<std::vector<std::uint8_t>> : ElementsOf<void> {};
template <class T, unsigned int Bound>
struct ElementsOf<TipprmiSequence<T, Bound>> : ElementsOf<std::vector<T>> {};
template <class T, std::size_t N>
struct ElementsOf<std::array<T, N>> {
    static TreflectMetaClass::Attribute row(char const* name) {
        return {name, TreflectMetaClass::Attribute::kArray, static_cast<int>(N)};
    }
};

/** An operation: its name, and the method code under which `Method` serves it. */
template <auto Method>
struct Operation {
    char const* name;
    unsigned int code;

    constexpr std::array<unsigned int, 1> codes() const { return {code}; }
    template <auto Wanted>
    constexpr unsigned int codeOf() const {
        return isSameFunction<Wanted, Method> ? code : 0;
    }
    template <class Serve>
    bool serve(unsigned int mc, Serve const& serve) const {
        return mc == code && serve(Method);
    }
    void describe(std::vector<TreflectMetaClass::Operation>& operations,
                  std::vector<TreflectMetaClass::Attribute>&) const {
        operations.push_back(rowOf<Method>(name, code));
    }
};

/** An attribute that can be read. */
template <auto Get>
struct ReadOnlyAttribute {
    char const* name;
    unsigned int getCode;

    constexpr std::array<unsigned int, 1> codes() const { return {getCode}; }
    template <auto Wanted>
    constexpr unsigned int codeOf() const {
        return isSameFunction<Wanted, Get> ? getCode : 0;
    }
    template <class Serve>
    bool serve(unsigned int mc, Serve const& serve) const {
        return mc == getCode && serve(Get);
    }
    void describe(std::vector<TreflectMetaClass::Operation>& operations,
                  std::vector<TreflectMetaClass::Attribute>& attributes) const {
        using Value = std::decay_t<typename SignatureOf<decltype(Get)>::Result>;
        operations.push_back(rowOf<Get>(std::string("get") + name, getCode));
        attributes.push_back(ElementsOf<Value>::row(name));
    }
};

/** An attribute that can be read and written. */
template <auto Get, auto Set>
struct Attribute {
    ReadOnlyAttribute<Get> get;
    unsigned int setCode;

    constexpr std::array<unsigned int, 2> codes() const { return {get.getCode, setCode}; }
    template <auto Wanted>
    constexpr unsigned int codeOf() const {
        return isSameFunction<Wanted, Set> ? setCode : get.template codeOf<Wanted>();
    }
    template <class Serve>
    bool serve(unsigned int mc, Serve const& serve) const {
        return get.serve(mc, serve) || (mc == setCode && serve(Set));
    }
    void describe(std::vector<TreflectMetaClass::Operation>& operations,
                  std::vector<TreflectMetaClass::Attribute>& attributes) const {
        get.describe(operations, attributes);
        operations.push_back(rowOf<Set>(std::string("set") + get.name, setCode));
    }
};

/** What an interface consists of. */
template <class... Members>
struct Interface {
    char const* name;
    unsigned int classId;
    std::tuple<Members...> members;

    /** The method code under which `Method` is served; 0 when it is none of the operations. */
    template <auto Method>
    constexpr unsigned int codeOf() const {
        return std::apply(
            [](auto const&... member) { return (0u + ... + member.template codeOf<Method>()); },
            members);
    }
    /** How often a method code occurs. */
    constexpr unsigned int countOf(unsigned int code) const {
        unsigned int count = 0;
        forEachCode([&](unsigned int other) { count += other == code ? 1 : 0; });
        return count;
    }
    template <class Function>
    constexpr void forEachCode(Function const& function) const {
        std::apply([&](auto const&... member) { (forEachCodeOf(member, function), ...); }, members);
    }
    /** Whether no code occurs twice, and none is one of those that every object has. */
    constexpr bool hasGoodCodes() const {
        bool good = true;
        forEachCode([&](unsigned int code) {
            bool const standard =
                (code >= 1000 && code <= 1108) || code == 2100 || code == 2101 || code == 0;
            good = good && !standard && countOf(code) == 1;
        });
        return good;
    }

private:
    template <class Member, class Function>
    static constexpr void forEachCodeOf(Member const& member, Function const& function) {
        for (unsigned int const code : member.codes())
            function(code);
    }
};

/** Whether a skeleton class describes itself, and so do all that it is derived from. */
template <class Skeleton, class = void>
struct IsDescribed : std::false_type {};
template <class Skeleton>
struct IsDescribed<Skeleton, std::void_t<decltype(Skeleton::interface())>> : std::true_type {};

template <class Skeleton>
std::vector<TreflectMetaClass const*> basesOf() {
    if constexpr (std::is_same_v<Skeleton, TreflectServerObject>)
        return {};
    else
        return {&Skeleton::metaClass()};
}

}  // namespace treflect

/**
 * An interface that is written once, as a skeleton class: its table, its dispatch and its client
 * follow from one line for each operation.
 *
 *     class LampSkeleton : public TreflectInterface<LampSkeleton> {
 *     public:
 *         using TreflectInterface::TreflectInterface;
 *
 *         virtual unsigned int getLevel() = 0;
 *         virtual TipprmiResult<void> setLevel(unsigned int level) = 0;
 *         virtual bool blink(unsigned int times, std::string const& why) = 0;
 *
 *         static constexpr auto interface() {
 *             return describe(
 *                 "Lamp", 0x4C414D50,
 *                 attribute<&LampSkeleton::getLevel, &LampSkeleton::setLevel>("Level", 1, 2),
 *                 op<&LampSkeleton::blink>("blink", 6));
 *         }
 *     };
 *     using Lamp = TreflectClient<LampSkeleton>;
 *
 * A caller has `lamp.call<&LampSkeleton::blink>(3u, why)`, and the names of the table. What the
 * operations take and return is of types with stream operators; the table has the names of those
 * that have one (TreflectTypeName). Each function is served under one name, and is not overloaded.
 *
 * `Base` is the skeleton class of the interface's base: a TreflectInterface, or a TreflectSkeleton.
 * Method codes are unique in an interface and its bases, see TreflectMetaClass; among
 * TreflectInterfaces that is checked when they are compiled.
 */
template <class Skeleton, class Base = TreflectServerObject>
class TreflectInterface : public Base {
public:
    using Base::Base;

    /** The class that the interface describes. */
    static TreflectMetaClass const& metaClass() { return kMeta; }

    unsigned int getServerClassId() const override { return kMeta.getClassId(); }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return kMeta.classIds();
    }
    /** Serves the operations of the interface; leaves any other call to the base. */
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        constexpr auto described = Skeleton::interface();
        static_assert(described.hasGoodCodes(),
                      "a method code occurs twice, or is 0 or one that every object has");
        static_assert(!repeatsCodesOf<Base>(), "a method code is one of a base");
        bool served = false;
        auto const serveBy = [&](auto method) {
            served = this->serve(described.classId, cc, mc, in, out, method);
            return true;
        };
        bool const known =
            std::apply([&](auto const&... member) { return (member.serve(mc, serveBy) || ...); },
                       described.members);
        return known ? served : Base::dispatch(withResponse, cc, mc, in, out);
    }

    /** Whether an interface that is derived from this one may not use a method code. */
    static constexpr bool usesCode(unsigned int code) {
        bool used = Skeleton::interface().countOf(code) > 0;
        if constexpr (treflect::IsDescribed<Base>::value)
            used = used || Base::usesCode(code);
        return used;
    }

protected:
    /** An operation that `Method`, a member function of the skeleton class, serves. */
    template <auto Method>
    static constexpr treflect::Operation<Method> op(char const* name, unsigned int code) {
        return {name, code};
    }
    /** An attribute: its operations are "get" and "set" followed by its name. */
    template <auto Get, auto Set>
    static constexpr treflect::Attribute<Get, Set> attribute(char const* name, unsigned int getCode,
                                                             unsigned int setCode) {
        return {{name, getCode}, setCode};
    }
    /** The same for one that can only be read. */
    template <auto Get>
    static constexpr treflect::ReadOnlyAttribute<Get> attribute(char const* name,
                                                                unsigned int getCode) {
        return {name, getCode};
    }
    /** What the skeleton class answers as `interface`: the name of its class, the class's id, which
     * is unique in the system, and its operations and attributes. */
    template <class... Members>
    static constexpr treflect::Interface<Members...> describe(char const* name,
                                                              unsigned int classId,
                                                              Members... members) {
        return {name, classId, {members...}};
    }

private:
    template <class>
    friend class TreflectClient;

    template <class Other>
    static constexpr bool repeatsCodesOf() {
        bool repeats = false;
        if constexpr (treflect::IsDescribed<Other>::value)
            Skeleton::interface().forEachCode(
                [&](unsigned int code) { repeats = repeats || Other::usesCode(code); });
        return repeats;
    }
    static TreflectMetaClass makeMeta() {
        constexpr auto described = Skeleton::interface();
        std::vector<TreflectMetaClass::Operation> operations;
        std::vector<TreflectMetaClass::Attribute> attributes;
        std::apply([&](auto const&... member) { (member.describe(operations, attributes), ...); },
                   described.members);
        return TreflectMetaClass(described.name, described.classId, treflect::basesOf<Base>(),
                                 std::move(operations), std::move(attributes));
    }

    // Built before the program's work begins. A base may be built later, see TreflectMetaClass.
    inline static TreflectMetaClass const kMeta = makeMeta();
};

/**
 * A handle on an object whose interface a TreflectInterface describes. Operations of bases are
 * called in the same way.
 */
template <class Skeleton>
class TreflectClient : public TreflectObject {
public:
    /** Makes a handle as TreflectObject does. */
    using TreflectObject::TreflectObject;

    /** The class that the handle expects; it lives as long as the program. */
    static TreflectMetaClass const& metaClass() { return Skeleton::metaClass(); }

    /** Calls the operation that `Method` serves, wherever the object lives, and waits for the
     * result: a TipprmiResult, see treflectCall. */
    template <auto Method, class... Arguments>
    auto call(Arguments&&... arguments) const {
        constexpr bool takesThem = takes<Method, Arguments...>();
        static_assert(takesThem, "these are not the arguments of this function");
        if constexpr (takesThem)
            return treflectCall(*this, declaring<Method>().classId, code<Method>(), Method,
                                std::forward<Arguments>(arguments)...);
    }
    /** Sends a call that nobody answers, see tipprmiSend. */
    template <auto Method, class... Arguments>
    TipprmiResult<void> send(Arguments&&... arguments) const {
        constexpr bool takesThem = takes<Method, Arguments...>();
        static_assert(takesThem, "these are not the arguments of this function");
        if constexpr (takesThem)
            return sendBy(code<Method>(), Method, std::forward<Arguments>(arguments)...);
    }

private:
    // Has the class known to every program that uses the client.
    using KnownClass = std::integral_constant<TreflectMetaClass const*, &Skeleton::kMeta>;

    template <auto Method, class... Arguments>
    static constexpr bool takes() {
        using Declaring = typename treflect::SignatureOf<decltype(Method)>::Class;
        return std::is_invocable_v<decltype(Method), Declaring&, Arguments...>;
    }
    template <auto Method>
    static constexpr auto declaring() {
        using Declaring = typename treflect::SignatureOf<decltype(Method)>::Class;
        static_assert(std::is_base_of_v<Declaring, Skeleton>,
                      "this is a function of another interface");
        return Declaring::interface();
    }
    template <auto Method>
    static constexpr unsigned int code() {
        constexpr unsigned int found = declaring<Method>().template codeOf<Method>();
        static_assert(found != 0, "this function is none of the interface's operations");
        return found;
    }
    template <class Declaring, class Result, class... Parameters>
    TipprmiResult<void> sendBy(unsigned int mc, Result (Declaring::*)(Parameters...),
                               std::decay_t<Parameters> const&... arguments) const {
        return tipprmiSend(*this, Declaring::interface().classId, mc, arguments...);
    }
    template <class Declaring, class Result, class... Parameters>
    TipprmiResult<void> sendBy(unsigned int mc, Result (Declaring::*)(Parameters...) const,
                               std::decay_t<Parameters> const&... arguments) const {
        return tipprmiSend(*this, Declaring::interface().classId, mc, arguments...);
    }
};
