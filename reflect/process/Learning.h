#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "handler_threads/RunPermission.h"
#include "logging/LineLimit.h"
#include "reflect/TreflectClassDescription.h"
#include "reflect/TreflectOrbId.h"
#include "reflect/classes/LearnedClass.h"

/**
 * The classes that other processes have described to this one, and who uses which of them. Each is
 * told by its id and the hash of its description, so that two processes that describe a class in
 * two ways both have their own. What is learned is never dropped, and bounded: beyond the bounds
 * nothing more is learned. Those that have lost a base, which only this process itself can close,
 * do not count: they are learned again.
 */
class Learning {
public:
    /** That of the process, never destroyed. */
    static Learning& instance();

    /** The largest encoding of an answer that is read. */
    static constexpr std::size_t kLargestAnswer = 1 << 20;

    /** The class of an object of another broker. Asks that broker's process, which is waited for,
     * unless it has told before. Null when it tells nothing, or nothing sound, for which it is not
     * asked again. */
    TreflectMetaObject* find(unsigned int classId, TreflectOrbId broker) OSW_REQUIRES_PERMISSION;

    using Descriptions = std::vector<TreflectClassDescription>;
    /** Takes over what a broker's process has told of a class: it, its bases and the classes of
     * values. Null, with a log line, when that makes no sense. `size`: of the encoding. */
    TreflectMetaObject* admit(unsigned int classId, TreflectOrbId broker,
                              Descriptions const& descriptions,
                              std::size_t size) OSW_REQUIRES_PERMISSION;
    /** A broker has gone: which classes its objects have does not matter any more. */
    void forget(TreflectOrbId broker) OSW_REQUIRES_PERMISSION;

private:
    class Admission;

    using Key = std::pair<unsigned int, std::uint64_t>;  // class id, hash
    struct Learned {
        std::unique_ptr<LearnedClass> meta;
        TreflectOrbId teller;      // who has told it first
        std::size_t bytes = 0;     // its share of the encoding
        std::size_t expanded = 0;  // of its types
    };
    /** How much there is of what is bounded. */
    struct Amount {
        std::size_t classes = 0;
        std::size_t bytes = 0;
        std::size_t expanded = 0;
    };
    using OfBroker = std::pair<TreflectOrbId, unsigned int>;  // broker, class id

    static constexpr std::size_t kMostClasses = 4096;
    static constexpr std::size_t kMostVariants = 16;       // of one class id
    static constexpr std::size_t kMostBytes = 16 << 20;    // of encodings
    static constexpr std::size_t kMostExpanded = 8 << 20;  // of types
    static constexpr std::size_t kMostUses = 65536;
    /// Several of one key when all but one have lost a base: they are in use still.
    using Classes = std::multimap<Key, Learned>;

    /** Of all that is whole. */
    Amount learned() const OSW_REQUIRES_PERMISSION;
    void refuse(OfBroker const& wanted, std::string const& fault) OSW_REQUIRES_PERMISSION;

    Classes classes_ OSW_GUARDED_BY_PERMISSION;
    /// Which of them are those of a broker's objects: what was asked for once is at hand.
    std::map<OfBroker, LearnedClass*> uses_ OSW_GUARDED_BY_PERMISSION;
    std::set<OfBroker> refused_ OSW_GUARDED_BY_PERMISSION;
    // Other processes cause them at will.
    Logging::LineLimit refusals_;
    Logging::LineLimit differences_;
};
