// Files of `reflectorb record`: what stands in them, byte by byte, tells docs/recording-format.md.
#pragma once

#include <reflect.h>

#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

/** What a recording is made of. Values; times are microseconds since 1970. */
namespace recording {

using Anys = std::vector<TipprmiAny>;
/** Types of arguments or results. */
using Types = std::vector<TreflectParameterType>;

constexpr char kMark[] = "RORBREC\n";  // the first bytes of a file, without the 0
constexpr std::size_t kMarkSize = sizeof kMark - 1;
constexpr unsigned int kVersion = 2;
/** Of a record's payload. Values of calls are no larger than a message. */
constexpr std::size_t kLargestRecord = Transport::kLargestMessage;

/** Stands first in each file. */
struct Begin {
    unsigned int version = kVersion;
    std::int64_t time = 0;
    std::string writer;
    REFLECTORB_STRUCT(Begin, version, time, writer)
};
/** Stands ahead of what is told of it. A number belongs to one object in all files of a run. */
struct Object {
    unsigned int number = 0;
    std::string name;
    std::string className;
    std::uint64_t classHash = 0;  // of its class, which stands ahead
    std::string process;
    REFLECTORB_STRUCT(Object, number, name, className, classHash, process)
};
struct Call {
    std::int64_t time = 0;
    unsigned int object = 0;
    std::string operation;
    Anys arguments;
    unsigned int number = 0;  // in the object's process; 0 when that is not known
    std::string caller;       // the process; empty likewise
    REFLECTORB_STRUCT(Call, time, object, operation, arguments, number, caller)
};
/** A call has ended. */
struct End {
    std::int64_t time = 0;
    unsigned int object = 0;
    std::string operation;
    Anys results;
    unsigned int number = 0;  // of the call
    unsigned int fate = 0;    // a Fate::Kind
    unsigned int code = 0;    // of a refusal
    TipprmiAny fields;        // of its exception
    REFLECTORB_STRUCT(End, time, object, operation, results, number, fate, code, fields)
};
/** An attribute has this value, from now on as far as it is known. */
struct Value {
    std::int64_t time = 0;
    unsigned int object = 0;
    std::string attribute;
    TipprmiAny value;
    REFLECTORB_STRUCT(Value, time, object, attribute, value)
};
struct Gone {
    std::int64_t time = 0;
    unsigned int object = 0;
    REFLECTORB_STRUCT(Gone, time, object)
};
/** So many records were dropped here. */
struct Lost {
    std::int64_t time = 0;
    unsigned int count = 0;
    REFLECTORB_STRUCT(Lost, time, count)
};
/** The recording was ended, or paused; a file without it was cut off. */
struct Finish {
    std::int64_t time = 0;
    REFLECTORB_STRUCT(Finish, time)
};
/** In the order of their numbers in a file. */
using Record =
    std::variant<Begin, TreflectClassDescription, Object, Call, End, Value, Gone, Lost, Finish>;

/** The bytes of a record in a file; empty when it is too large for one. */
std::string encode(Record const& record);
/** Those of a payload. */
std::string framed(std::string const& payload);

/** Reads a file, record by record. Trusts nothing that stands there. */
class Reader {
public:
    /** How a file has ended. */
    enum class Ending {
        kNone,        // not yet
        kComplete,    // behind a whole record
        kCutOff,      // within a record: its writer was interrupted
        kDamaged,     // at a record that is not what was written
        kNoRecording  // it is none, or of a version that is not known
    };

    /** `file` must outlive the reader. */
    explicit Reader(std::istream& file) : file_(file) {}

    /** The next one; nothing at the end. Records of kinds that are not known are left out. */
    std::optional<Record> next();
    Ending ending() const { return ending_; }

private:
    std::optional<Record> end(Ending ending) {
        ending_ = ending;
        return std::nullopt;
    }
    bool begin();
    std::optional<std::string> payload();

    std::istream& file_;
    bool begun_ = false;
    Ending ending_ = Ending::kNone;
};

/** The classes and objects of a recording, and with them the types of its values. */
class Known {
public:
    /** Takes note of a record, if it is a class or an object. */
    void note(Record const& record);
    /** Null for a number that no object has. */
    Object const* object(unsigned int number) const;
    /** Types of what an operation takes and yields, or of what an attribute has; fewer than there
     * are values, or invalid ones, where the recording does not tell. */
    Types argumentTypes(unsigned int object, std::string const& operation) const;
    Types resultTypes(unsigned int object, std::string const& operation) const;
    /** What comes with a refusal; invalid when the class does not tell. */
    TreflectParameterType exceptionType(unsigned int object, std::string const& operation,
                                        unsigned int code) const;
    Types attributeTypes(unsigned int object, std::string const& attribute) const;
    /** The comment of an attribute; empty when there is none. */
    std::string attributeComment(unsigned int object, std::string const& attribute) const;

private:
    struct Found {
        TreflectClassDescription const* owner = nullptr;
        TreflectClassDescription::Operation const* operation = nullptr;
    };
    Found find(unsigned int object, std::string const& operation) const;

    std::map<std::uint64_t, TreflectClassDescription> classes_;  // by their hashes
    std::map<unsigned int, Object> objects_;
};

}  // namespace recording
