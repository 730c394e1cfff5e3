#pragma once

#include <list>
#include <string>
#include <utility>
#include <vector>

#include "ipprmi/TipprmiSequence.h"
#include "reflect/TreflectMetaObject.h"

/**
 * A meta object made from tables: the way to describe a class in a few lines. Write it as an inline
 * variable in the header in which the class has its codes, behind those of its bases:
 *
 *     inline TreflectMetaClass const deviceMeta("Device", device::kClass, {},
 *         {{"getName", device::kGetName, {}, {"string"}}},
 *         {"Name"});
 *
 *     inline TreflectMetaClass const lampMeta("Lamp", lamp::kClass, {&deviceMeta},
 *         {{"getLevel", lamp::kGetLevel, {}, {"unsigned"}},
 *          {"setLevel", lamp::kSetLevel, {"unsigned"}, {}},
 *          {"blink",    lamp::kBlink,    {"unsigned", "unsigned"}, {}}},
 *         {"Level"});
 *
 * Method codes are unique in a class and its bases, and none of those that every object has: 1000
 * to 1108, 2100 and 2101. A name or a code that occurs twice, also in two of its bases, and a type
 * that is none, is logged at level 3, when the class is first looked for. An operation of a base
 * may be repeated with its name and its code. A class id of two classes is logged when the second
 * is built.
 */
class REFLECTORB_API TreflectMetaClass : public TreflectMetaObject {
public:
    /** A failure with a meaning: the code that a refused call answers, and the type of what comes
     * with it, which is a struct with a name. */
    struct Exception {
        unsigned int code;  ///< none of TipprmiFailure
        std::string type;   ///< as TreflectParameterType reads it
    };
    /** What can be called. */
    struct Operation {
        std::string name;  ///< unique in the class and its bases
        unsigned int id;   // method code
        /** Types of the arguments, perhaps with their names; empty for one that nobody has named.
         */
        std::vector<std::string> in = {};
        std::vector<std::string> out = {};   // types of the results
        std::vector<Exception> raises = {};  // what it may be refused with
    };
    /** Converts from the name of an attribute with a single value. */
    struct Attribute {
        /** How the value is made up of elements. */
        enum Kind { kPlain, kSequence, kArray };

        /** A single value, of the type that the get operation yields. */
        Attribute(char const* attributeName) : name(attributeName) {}
        /** A value that is a handle on an object of the class `valueClass`, not owned. */
        Attribute(char const* attributeName, TreflectMetaClass const& valueClass)
            : name(attributeName), type(&valueClass) {}
        /** A value of elements: `count` of them, written one after the other (kArray), or as a
         * sequence of at most so many (kSequence), of which 0 sets no limit. */
        Attribute(char const* attributeName, Kind valueKind, int count = 0)
            : name(attributeName), kind(valueKind), length(count) {}
        /** The same with handles on objects of the class `valueClass` as elements. */
        Attribute(char const* attributeName, TreflectMetaClass const& valueClass, Kind valueKind,
                  int count)
            : name(attributeName), type(&valueClass), kind(valueKind), length(count) {}

        char const* name;  ///< without "get" and "set"
        TreflectMetaClass const* type =
            nullptr;         ///< class of the value or its elements; null: no object
        Kind kind = kPlain;  ///< one value, or elements
        int length = 1;      ///< elements of an array; most of a sequence, 0: any number
    };

    /** What whoever wrote the interface says of it, for people who look at it in a tool. The texts
     * are literals, or live as long as the meta object. */
    struct Docs {
        /** That of an operation or an attribute, by its name. */
        struct Member {
            char const* name;  ///< of the member
            char const* text;  ///< UTF-8, any number of lines
        };

        Docs() : text("") {}
        /** Texts for the class itself and for some of its members. */
        Docs(char const* ofClass, std::vector<Member> ofMembers = {})
            : text(ofClass), members(std::move(ofMembers)) {}

        char const* text;             // of the class itself
        std::vector<Member> members;  ///< in any order
    };

    /** Names of attributes are literals, or live as long as the meta object. `types` are texts of
     * types with names, to which those of operations may refer (see TreflectTypes). Bases are not
     * owned; they come most important first. A base, or the class of a value, may be a static
     * object of another file that is built later: the class has its members once all its bases are
     * built. */
    TreflectMetaClass(std::string const& name, unsigned int classId,
                      std::vector<TreflectMetaClass const*> bases,
                      std::vector<Operation> operations, std::vector<Attribute> attributes = {},
                      std::vector<std::string> types = {}, Docs docs = {});
    ~TreflectMetaClass() override;

    /** The comment of the class; empty when there is none. */
    char const* doc() const { return docs_.text; }
    /** That of an operation or an attribute of its own, likewise. */
    char const* docOf(std::string const& member) const;

    /** The class's own id, then those of all its bases, each once and behind those that are derived
     * from it: what a server object of the class answers to the question for its class ids. */
    TipprmiSequence<unsigned int, 0u> classIds() const;
    /** As they were given: one may be yet to be built, or gone. */
    std::vector<TreflectMetaClass const*> const& bases() const { return bases_; }

    /**
     * Whether handles learn the classes of objects that this process does not know, from the
     * process object of the object's process (see TreflectProcessObject), if it has one. False at
     * start. Any thread.
     *
     * What is learned is kept to the end of the process, apart from the classes that the process
     * knows by itself: nobody else hears of it, and two processes that describe one class id in two
     * ways have a meta object each. A class that this process knows is not asked for. What another
     * process describes is bounded and checked; what makes no sense is refused with a log line,
     * and not asked for again as long as that broker is there.
     */
    static void learn(bool on);
    /** Whether handles learn classes. */
    static bool learns();

protected:
    /** As above; nothing is said about mistakes in the tables, since who wrote them is told. */
    TreflectMetaClass(Unlisted, std::string const& name, unsigned int classId,
                      std::vector<TreflectMetaClass const*> bases,
                      std::vector<Operation> operations, std::vector<Attribute> attributes,
                      std::vector<std::string> types, Docs docs);
    void completeMetaInformation() override;

private:
    void registerBases();
    void collectIds();
    void registerMembers();
    /** Logs what the tables have twice. */
    void tellMistakes() const;
    /** Logs what bases have that clashes with what other bases have. */
    void tellClashesOfBases() const;
    void tellClashes(std::list<TreflectMetaOperation*> const& some,
                     std::list<TreflectMetaOperation*> const& others) const;
    void tellClash(Operation const& operation, std::string const& otherClass,
                   std::string const& otherName, int otherId) const;
    /** Logs which types in them are none. */
    void tellUnknownTypes() const;
    void registerAttributes();
    void registerTypes();
    void describeParameters();
    /** False when the class of a value is not there. */
    bool describeTypes();

    std::vector<TreflectMetaClass const*> const bases_;
    // Of rows of one name the last stays, once the class has been completed.
    std::vector<Operation> operations_;
    std::vector<Attribute> attributes_;
    std::vector<std::string> const types_;
    Docs const docs_;
    // Fixed once all bases have been built, which is before the program's work begins.
    std::vector<unsigned int> ids_;
    bool knowsBases_ = false;
    // Guarded by the run permission.
    bool completed_ = false;
    bool typed_ = false;
};
