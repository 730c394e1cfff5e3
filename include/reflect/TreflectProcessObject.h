#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ipprmi/TipprmiResult.h"
#include "ipprmi/TipprmiStruct.h"
#include "oswrap/Export.h"
#include "reflect/TreflectClassDescription.h"
#include "reflect/TreflectMetaClass.h"
#include "reflect/TreflectObject.h"
#include "reflect/TreflectOrbId.h"

/** What a process object serves: the codes and the types of its operations. */
namespace processobject {

/** The class id. */
constexpr unsigned int kClass = 0x5052;
/** Method codes. Those with "Get" read attributes, kSetLogThreshold writes one; the others are
 * operations. */
enum Method : unsigned int {
    kGetIdentity = 0x50520000,
    kGetUsage,
    kGetTraffic,
    kGetCalls,
    kGetPermission,
    kGetObservations,
    kGetLogThreshold,
    kSetLogThreshold,
    kClasses,
    kDescribe,
    kDescribeNamed,
    kObjects,
    kLog,
    kGetLastRecord
};

// Its refusals.
constexpr unsigned int kUnknownClass = 1;  ///< the process knows no such class
constexpr unsigned int kNoThreshold = 2;   ///< the number is none of the levels

/** Who the process is. */
struct Identity {
    std::string actor;         ///< the name of the process
    unsigned int pid = 0;      ///< by which the kernel knows it
    std::string user;          ///< whose it is; the number where there is no name
    std::string version;       ///< of the library
    std::int64_t started = 0;  ///< milliseconds since 1970; 0 when the system does not tell
    std::vector<std::string> commandLine;  ///< program and arguments
    std::vector<unsigned int> brokers;     ///< their ids
    REFLECTORB_STRUCT(Identity, actor, pid, user, version, started, commandLine, brokers)
};

/** What it uses. */
struct Usage {
    double uptime = 0;                 ///< seconds; 0 when the system does not tell
    unsigned int threads = 0;          ///< that there are
    std::int64_t memory = 0;           ///< bytes that are resident
    unsigned int descriptors = 0;      ///< that are open
    unsigned int mostDescriptors = 0;  ///< that it may have
    unsigned int objects = 0;          ///< that its brokers serve
    REFLECTORB_STRUCT(Usage, uptime, threads, memory, descriptors, mostDescriptors, objects)
};

/** What a broker has sent to a destination since its counters were last asked for by
 * TreflectORB::getPerfCnts; reading them here leaves them as they are. */
struct Traffic {
    unsigned int broker = 0;       ///< whose counters they are
    unsigned int destination = 0;  ///< the other broker
    unsigned int sent = 0;         ///< requests and one-way messages
    unsigned int failed = 0;       ///< those of them that could not be sent or were not answered
    REFLECTORB_STRUCT(Traffic, broker, destination, sent, failed)
};

/** A request that a thread waits for. Of one that is no call of an object the object is 0. */
struct Call {
    unsigned int thread = 0;        ///< by the kernel's number
    unsigned int broker = 0;        ///< that carries it
    unsigned int target = 0;        ///< the broker that is to answer
    std::string what;               ///< "call", "search", "notice" or "query"
    unsigned int object = 0;        ///< the object's number in its broker
    unsigned int classCode = 0;     ///< 0: a question that every object answers
    int methodCode = 0;             ///< see classCode
    std::string operation;          ///< when the class is known in this process
    unsigned int milliseconds = 0;  ///< that the thread sleeps for it; 0: not yet
    REFLECTORB_STRUCT(Call, thread, broker, target, what, object, classCode, methodCode, operation,
                      milliseconds)
};

/** Who has the run permission, and who waits for it. Who tells it has it while it does so. */
struct Permission {
    unsigned int holder = 0;          ///< thread, by the kernel's number
    unsigned int levels = 0;          ///< how often it has it
    std::vector<unsigned int> queue;  ///< likewise, the next one first
    REFLECTORB_STRUCT(Permission, holder, levels, queue)
};

/** What is observed. */
enum class When : unsigned int { BeforeCalls, AfterCalls, Creations, Deletions };

/** Somebody observes an object's calls, or the objects of a class. */
struct Observation {
    When when = When::BeforeCalls;  ///< what is observed
    std::string object;             ///< identifier; empty for a class
    unsigned int classId = 0;       ///< of the operation, or of the objects
    std::string className;          ///< empty when it is not known here, as is the next
    std::string operation;          ///< empty when objects are observed
    unsigned int methodCode = 0;    ///< likewise 0
    std::string observer;           ///< identifier of who observes calls; else empty
    unsigned int broker = 0;        ///< where the observers are  ///< by its id
    unsigned int observers = 1;     ///< how many; of another broker: 1 for all of them
    REFLECTORB_STRUCT(Observation, when, object, classId, className, operation, methodCode,
                      observer, broker, observers)
};

/** A class that the process knows. */
struct KnownClass {
    unsigned int id = 0;     ///< class id
    std::string name;        ///< of the class
    std::uint64_t hash = 0;  ///< see TreflectClassDescription
    REFLECTORB_STRUCT(KnownClass, id, name, hash)
};

/** An object that a broker of the process serves. */
struct ServedObject {
    unsigned int broker = 0;   ///< the broker's id
    unsigned int id = 0;       ///< its number in that broker
    std::string identifier;    ///< empty for an object without one
    std::string name;          ///< in the tree; empty when it is not reflective
    unsigned int classId = 0;  ///< 0 when it is not reflective
    std::string className;     ///< empty when it is not known here
    REFLECTORB_STRUCT(ServedObject, broker, id, identifier, name, classId, className)
};

/** A record of the log; see Logging::RecentRecord. */
struct LogRecord {
    std::uint64_t number = 0;  ///< counts up with each record that is kept
    int level = 0;             ///< 0 to 6
    std::int64_t time = 0;     ///< microseconds since 1970
    unsigned int thread = 0;   ///< by the kernel's number
    std::string source;        ///< the source file's name without extension
    int line = 0;              ///< of the source file
    std::string text;          ///< at most RecentRecords::kMostCharacters bytes
    REFLECTORB_STRUCT(LogRecord, number, level, time, thread, source, line, text)
};

}  // namespace processobject

template <>
struct TreflectTypeName<processobject::When> {
    static std::string text() { return "enum When{BeforeCalls, AfterCalls, Creations, Deletions}"; }
};

/**
 * As long as one lives, the process publishes its process object: a reflective object with the
 * identifier `process/ACTOR.PID` that tells what the process is, knows and does, for tools and
 * for readers who learn classes (TreflectMetaClass::learn). All of the process share one.
 *
 *     TreflectProcessObject const process;
 *
 * `REFLECTORB_PROCESS_OBJECT=1` in the environment has any program that uses the library publish it
 * with its first broker and keep it to the end; the thread that makes that broker then waits for
 * the run permission.
 *
 * It keeps the last records of the log (some 65 KB), has no thread but while somebody watches them,
 * and costs calls nothing. It is
 * found by its identifier, or, where the broker is known, by TreflectProcessClient::of; it is not
 * announced. A resource; any thread, better without the run permission.
 */
class REFLECTORB_API TreflectProcessObject {
public:
    /** Makes the broker of NSID_UNIT if there is none. */
    TreflectProcessObject();
    ~TreflectProcessObject();
    TreflectProcessObject(TreflectProcessObject const&) = delete;
    TreflectProcessObject& operator=(TreflectProcessObject const&) = delete;

    /** Its identifier. */
    static std::string identifier();
    /** The table of its class, which the process knows from the first call on: for programs that
     * use process objects by name. */
    static TreflectMetaClass const& metaClass();
};

/** A handle on a process object. Calls are refused with processobject::kUnknownClass and the like.
 */
class REFLECTORB_API TreflectProcessClient : public TreflectObject {
public:
    /** Makes a handle as TreflectObject does. */
    using TreflectObject::TreflectObject;

    /** The process object of the process that has a broker: not connected when it has none. Asks
     * that broker alone, with the run permission. */
    static TreflectProcessClient of(TreflectOrbId broker);

    /** Read the attributes, see their types. Under the run permission, which is given up while
     * they wait for the process. */
    TipprmiResult<processobject::Identity> getIdentity() const;
    TipprmiResult<processobject::Usage> getUsage() const;
    TipprmiResult<std::vector<processobject::Traffic>> getTraffic() const;
    TipprmiResult<std::vector<processobject::Call>> getCalls() const;
    TipprmiResult<processobject::Permission> getPermission() const;
    TipprmiResult<std::vector<processobject::Observation>> getObservations() const;
    /** See Logging::setThreshold; 0 to 6. */
    TipprmiResult<int> getLogThreshold() const;
    TipprmiResult<void> setLogThreshold(int level) const;
    /** In ascending order of their ids. */
    TipprmiResult<std::vector<processobject::KnownClass>> classes() const;
    /** The class, then its bases and the classes of values, as far as the process knows them: at
     * most 256, and of the latter no more than a reader takes. */
    TipprmiResult<std::vector<TreflectClassDescription>> describe(unsigned int classId) const;
    TipprmiResult<std::vector<TreflectClassDescription>> describeNamed(
        std::string const& className) const;
    /** At most `most` objects of a broker, and no more than 4096, in ascending order of their
     * numbers, those above `after`. Empty for a broker that is not one of the process. */
    TipprmiResult<std::vector<processobject::ServedObject>> objects(unsigned int broker,
                                                                    unsigned int after,
                                                                    unsigned int most) const;
    /**
     * The last record of the log; with the number 0 when there is none yet. A watch of the
     * attribute LastRecord is told of new ones, at most ten times a second: where numbers are
     * missing between two of them, `log` has those. Records of the thread ReflectWatch, which
     * tells, are told with the next one of another thread. That thread waits for who watches as
     * anybody does who tells observers: one that is stopped for a minute has the process abort, if
     * it is not set to fail on silence.
     */
    TipprmiResult<processobject::LogRecord> getLastRecord() const;
    /** The last records, those with a number above `after`; the oldest first. */
    TipprmiResult<std::vector<processobject::LogRecord>> log(std::uint64_t after) const;
};
