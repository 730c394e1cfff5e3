#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "ipprmi/TipprmiAny.h"
#include "reflect/TreflectAttribute.h"

/**
 * Tells of the value of an attribute of an object anywhere: at once, and whenever it has become
 * another one, because somebody has set it or because the object says so
 * (TreflectServerObject::changed). Nothing is asked for again and again. This is the watch of tools
 * that know no C++ type of the value; others use TreflectWatch.
 *
 * The value comes as its encoding. The attribute's class tells its type:
 *
 *     TreflectParameterType const type = level.meta()->metaOperGet()->resultTypes()[0];
 *     TreflectAttributeWatch const watch(level, [&](TipprmiAny const& value) {
 *         std::puts(type.print(value).value().c_str());
 *     });
 *
 * The reaction is called under the run permission, on the thread that makes the watch, then on a
 * worker, on the thread that changes the attribute if the object is in this process, or on the
 * thread `ReflectWatch`; never on two at once. Whoever has changed the value waits for it, unless
 * it is held back. It may do everything, also destroy the watch. A value that comes while it runs
 * is told when it returns, the last one only: by the same thread if that has changed it, else by
 * `ReflectWatch`, for which nobody waits. What it throws is logged at level 3, and it is told the
 * next value all the same.
 *
 * A reaction must be over within a minute: as with every call between processes, both sides abort
 * after that, unless Transport::Setup::failOnSilence says otherwise. While it runs on
 * `ReflectWatch`, nothing else of the process is told there. Two watches whose reactions destroy
 * each other at the same time wait for ever.
 *
 * Each value that is told differs from the one before. Between two of them others may have been
 * left out, but the last one is always told, and last. (When changes, sets and the making of the
 * watch overlap, an earlier value may come once more in between.) A value of a set is asked for in
 * the notice, as its observers are not told it, so a set waits for that, too; one of `changed`
 * comes with the notice. A value that cannot be read is logged at level 4, and not told.
 *
 * A watch goes on for as long as the object and this process's broker live, and ends in silence
 * with either; and also when a notice comes back to the object's process because it could not be
 * delivered or served: the object forgets the watch then. One that has come back under its
 * identifier is another object: make a new watch, for instance when an observer of creations or of
 * brokers hears of it. An object of an earlier version of the library tells nothing but what is
 * set. The attribute's class must outlive the watch, which matters where it comes with a shared
 * object that is closed.
 *
 * Made, used and destroyed on any thread, under the run permission or without: each may wait for
 * the object's process with the permission given up.
 */
class REFLECTORB_API TreflectAttributeWatch {
public:
    /** What to do with a value. */
    using Reaction = std::function<void(TipprmiAny const& value)>;

    /**
     * Watches the whole of an attribute; an element that is selected is of no account. The handle
     * and the attribute may go afterwards. The present value, or a later one, has been told when
     * this returns, or is being told by another thread that a change has been quicker on.
     *
     * Two calls of the reaction begin at least `leastInterval` apart, if it is above 0. A value
     * that comes earlier is held back, in place of one that is held back already, and told when the
     * time has come by the thread `ReflectWatch`, of which a process has one at most.
     */
    TreflectAttributeWatch(TreflectAttribute const& attribute, Reaction reaction,
                           std::chrono::milliseconds leastInterval = {});
    /** Nothing is told any more. Waits for a reaction that is under way, with all levels of the
     * permission given up, unless it is that which destroys the watch. */
    ~TreflectAttributeWatch();
    TreflectAttributeWatch(TreflectAttributeWatch const&) = delete;
    TreflectAttributeWatch& operator=(TreflectAttributeWatch const&) = delete;

    /** Whether there is nothing to watch: the null attribute, one of another type, or an object
     * that has not answered that it knows the watch, which is logged at level 4; to try again is up
     * to the caller. The deadlines of the calling thread do not count for that. */
    bool isError() const { return !state_; }

protected:
    /** Whether two encodings are the same, byte by byte. */
    static bool areEqual(TipprmiAny const& a, TipprmiAny const& b);

    /** `type`: what the values are to be read as; none when that is of no account. */
    TreflectAttributeWatch(TreflectAttribute const& attribute, Reaction reaction,
                           std::chrono::milliseconds leastInterval,
                           std::optional<TreflectValueCheck::Type> const& type);

private:
    class State;
    class EndedUnlessBegun;

    static std::shared_ptr<State> makeState(TreflectAttribute const& attribute, Reaction reaction,
                                            std::chrono::milliseconds leastInterval,
                                            std::shared_ptr<TreflectValueCheck const> const& check);

    std::shared_ptr<State> const state_;  // null for an error
};

/**
 * The same with values of a C++ type:
 *
 *     TreflectWatch<unsigned int> const watch(lamp.attribute("Level"), [](unsigned int level) {
 *         std::printf("now at %u\n", level);
 *     });
 *
 * The type is compared with what the class tells of the attribute, as reading does; if it is
 * another one, that is logged at level 3 and nothing is watched (`isError`). A value that cannot be
 * read as a T, or is out of its range, is not told.
 */
template <class T>
class TreflectWatch : public TreflectAttributeWatch {
    static_assert(!std::is_pointer_v<T>, "nobody would own what the pointer leads to");

public:
    /** What to do with a value. */
    using Reaction = std::function<void(T const& value)>;

    /** As TreflectAttributeWatch does it. */
    TreflectWatch(TreflectAttribute const& attribute, Reaction reaction,
                  std::chrono::milliseconds leastInterval = {})
        : TreflectAttributeWatch(attribute, decoding(std::move(reaction)), leastInterval,
                                 typeOf()) {}

private:
    // Reading an attribute does not compare handles either.
    static constexpr bool kIsHandle = std::is_base_of_v<TipprmiObjectClient, T>;

    static std::optional<TreflectValueCheck::Type> typeOf() {
        if constexpr (kIsHandle)
            return std::nullopt;
        else
            return TreflectValueCheck::Type::of<T>();
    }
    static TreflectAttributeWatch::Reaction decoding(Reaction reaction) {
        // One that cannot be read may come between two equal ones.
        return [reaction = std::move(reaction),
                told = std::optional<TipprmiAny>()](TipprmiAny const& encoded) mutable {
            TipprmiAny readable = encoded;
            T value = tipprmiBlank<T>();
            readable.extract(value);
            if (readable.hasUnmarshallingFailed() || (told && areEqual(*told, encoded)))
                return;
            told = encoded;
            reaction(value);
        };
    }
};
