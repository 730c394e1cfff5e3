#pragma once

#include <array>
#include <atomic>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "handler_threads/RunPermission.h"
#include "handler_threads/TreflectRunPermission.h"
#include "ipprmi/TipprmiOID.h"
#include "ipprmi/TipprmiSequence.h"
#include "ipprmi/TipprmiStream.h"
#include "reflect/NamespaceId.h"
#include "reflect/TreflectMessage.h"
#include "reflect/TreflectObjectLocationIf.h"
#include "reflect/TreflectOrbId.h"
#include "transport/TerminationImpl.h"

class TipprmiObjectSkeleton;
class TreflectObject;
class TreflectObserver;
class TreflectOrbObserverIf;
class TreflectServerObject;

/**
 * The broker of one namespace in this process. Sends requests and waits for their responses, serves
 * requests of others with a pool of worker threads, keeps the server objects of its namespace and
 * finds those of others. Brokers are made on first use and live until prepareOrbForDeletion or
 * process exit.
 *
 * Threads: any thread may call (see each operation). Object code runs under the process-wide run
 * permission only, which is given up while a caller waits for a response. A broker that is being
 * deleted, or has been, fails all calls, takes no objects and no observers of objects, and tells
 * of no brokers: fetch the pointer anew. An old pointer never dangles, whenever it was fetched.
 */
class REFLECTORB_API TreflectORB : public Transport::TerminationImpl {
public:
    class TreflectObjectLocation;
    struct InternalPerfCnts;
    struct PerfCnts;
    struct PerfCntInfo;
    struct PerfCntMultInfo;
    struct BrokerInfo;
    struct MetaData;  // of a class, see ClassRecords

    /**
     * The broker of a namespace, made and started on first use (which takes 100 ms). Null when it
     * could not be made, for a value outside 0 to 255 (logged), and for an absent one while brokers
     * are being deleted or the process is exiting. Any thread.
     */
    static TreflectORB* getInstance(NamespaceId ns);
    /**
     * Stops and deletes all brokers, in the order of their namespaces; afterwards they can be made
     * anew. Calls that are outstanding fail at once, requests that wait to be served are dropped,
     * and those being served are waited for. Calls that begin meanwhile fail and are not waited
     * for. Any thread, also one that serves a request (which is not waited for); the run permission
     * is given up meanwhile. Returns at once while another thread does the same, and in a forked
     * child.
     */
    static void prepareForDeletion();

    ~TreflectORB() override;

    /** A message for this broker: a response goes to its caller, all else to the workers. Called by
     * the transport on the receiving thread; true. */
    bool receive(Transport::AddressedMessage const& message) override;
    /** A message of this broker could not be delivered: its caller is told. */
    bool receiveError(Transport::AddressedMessage const& message) override;
    /** A broker came up: what is observed here is observed there too, for which a worker waits for
     * the newcomer. Not on the receiving thread. */
    void appeared(Transport::Termination& termination) override;
    /** A broker has gone: handles on its objects become invalid, and calls to it end at once. */
    void disappeare(Transport::Termination& termination) override;

    /**
     * Finds an object by identifier: here, else at every other broker of the group in turn, each
     * of which is waited for. A location with internal id 0 when there is none. An identifier of
     * another namespace is left to that namespace's broker. Any thread.
     */
    virtual TreflectObjectLocation locateObject(TipprmiOID const& oid) const;
    /** Enters a server object, which stays the caller's, and gives it its internal id; true. False
     * for null, and when the broker has been deleted. Any thread; waits for the run permission. */
    virtual bool registerObject(TipprmiObjectSkeleton* object);
    /** Takes a server object out, whoever it is; true. */
    virtual bool unregisterObject(TipprmiObjectSkeleton const* object);
    /**
     * Sends a call's request and, when a response is awaited, waits for it and puts it into
     * `response`. True on success; else `response` holds an exception container (but on the
     * receiving thread, which does not wait). The run permission is given up for the whole call.
     *
     * A caller whose target lives but does not answer ends the process after 60 seconds, see
     * resetUnit. A cancellation point while it waits.
     */
    virtual bool forwardMsg(TreflectOrbId const& target, bool withResponse, TipprmiStream& request,
                            TipprmiStream& response);
    /** Asks one broker for an object; its internal id there, or 0 (also when it did not answer). */
    virtual unsigned int resolve(Transport::TerminationId const& target, TipprmiOID oid) const;

    /**
     * Has `observer` told, by setSource and update, whenever an object of a class is created (or
     * deleted); `plusExisting`: and now of each that exists. True, but when the broker has been
     * deleted. One that is registered several times is told once per event. Not owned: it leaves
     * the lists when it is destroyed. Under the run permission.
     */
    bool observeCreations(unsigned int const& classId, TreflectObserver& observer,
                          bool plusExisting);
    bool observeDeletions(unsigned int const& classId, TreflectObserver& observer);
    /** Ends all registrations of the observer for the class, of both kinds. */
    void removeObserver(unsigned int const& classId, TreflectObserver& observer);
    /** Ends the observer's registrations for the class of one kind only. As long as anybody of this
     * process observes the class, in whatever way, other brokers are not told, and so no other
     * observer misses anything. */
    void endCreations(unsigned int classId, TreflectObserver& observer);
    void endDeletions(unsigned int classId, TreflectObserver& observer);
    /** Tells the observers of the class that an object of it is there, or is about to go; true. */
    bool notifyCreation(unsigned int classId, TreflectServerObject const& object);
    bool notifyDeletion(unsigned int classId, TreflectServerObject const& object);

    /**
     * Has `observer` told of brokers of all namespaces that come up, or go away; registered for
     * both it hears of both. `notifyExisting`: and now, on the calling thread, of those that are
     * there; again of those whose arrival is still to be told. False for null. Not owned. Any
     * thread; the run permission is given up meanwhile.
     */
    bool registerOrbCreation(TreflectOrbObserverIf* observer, bool notifyExisting);
    bool registerOrbDeletion(TreflectOrbObserverIf* observer);
    /** Ends both. When it returns the observer is not called any more; a notice that is being told
     * is waited for, unless called from inside it. */
    void unregisterOrbNotifications(TreflectOrbObserverIf* observer);

    /** The id of this broker, unchanged for life. */
    TreflectOrbId orbId() const { return orbId_; }
    /** The transport's group of a namespace, by this unit's slot; 0 when it has none. */
    Transport::GroupId getMyGroup(NamespaceId const& ns) const;
    /** The namespace whose brokers a group holds; NSID_UNDEF for another one. */
    NamespaceId getNamespaceFromGroup(Transport::GroupId const& group) const;
    /** Broker ids and transport addresses into each other. Not each other's inverse: slot 0 of
     * NSID_UNIT stands for the unit's current slot. */
    TreflectOrbId convertId(Transport::TerminationId const& id) const;
    Transport::TerminationId convertId(TreflectOrbId const& id) const;

    /** A request of `size` payload bytes: kind 2, transaction id 0. Any thread. */
    TreflectMessage allocateRequest(unsigned int size) const;
    /** A response of `size` payload bytes to `request`. Any thread. */
    TreflectMessage allocateResponse(TreflectMessage const& request, unsigned int size) const;
    /** A copy of `message` with `size` payload bytes; more than it had hold anything until the
     * caller writes them. Any thread. */
    TreflectMessage reallocateMessage(TreflectMessage const& message, unsigned int size) const;

    /** The process-wide run permission; each forwards to TreflectRunPermission. */
    static TreflectHandlerThreads& handlerThreads();
    static void enterHandlerState(bool getPermission);
    static void leaveHandlerState(bool releasePermission);
    static void checkHandlerState();
    static void getRunPermission();
    static void releaseRunPermission();
    static bool hasRunPermission();
    static bool isHandlerThread();
    static unsigned long getRunPermissionCount();
    static unsigned long getRunPermissionOwner();

    /**
     * Asks a broker, which may be this one, for its counters: what it has sent to each destination
     * since it was last asked by anybody; the answer starts them afresh. A request that is under
     * way then is among the sent ones of this answer; if it fails, among the failed ones of the
     * next. Empty when the broker did not answer, or not readably. Waits as forwardMsg does, no
     * longer than until the thread's TreflectDeadline: what an answer tells that comes later is
     * lost. Any thread.
     */
    PerfCntInfo getPerfCnts(Transport::TerminationId const& target) const;
    /** Asks all other brokers of the group in turn, in ascending order of their terminations; one
     * that did not answer is there with an empty info. Any thread. */
    std::list<PerfCntMultInfo> getPerfCnts() const;
    /** The same in full, and with this broker among them, for tools that show the group. Its
     * own counters are those before it asks the others, and start afresh like theirs. */
    std::list<BrokerInfo> getBrokers() const;
    /** Logs this broker's state at level 5; `debug_` adds its counters and who observes brokers.
     * The argument has no meaning. Any thread; waits for the run permission after two lines. */
    void display(int) const;
    /** Has diagnostics of all brokers tell more, see display. False at start. Any thread. */
    static std::atomic<bool> debug_;
    /**
     * Logs the event, runs the platform's log-collection script, whose result is logged, and aborts
     * the process whatever that was. For a unit that cannot go on; the broker itself calls it when
     * a request has waited for 60 seconds, here or, as its sender says, there, unless
     * Transport::Setup::failOnSilence keeps it from that. Any thread.
     */
    [[noreturn]] void resetUnit() const;

    /** The inside of the operations above, for the library's own use. */

    /** Sends a message whose type is set to `target`; the engine of forwardMsg. */
    bool forwardMsg_(Transport::TerminationId target, bool withResponse, TreflectMessage& message,
                     TipprmiStream& response) const;
    /** The two halves of locateObject: here, and at the other brokers of the group. */
    TreflectObjectLocation locateLocalObject_(TipprmiOID const& oid) const;
    TreflectObjectLocation locateRemoteObject_(TipprmiOID const& oid) const;
    /** A registered object has been given another identifier. With the run permission. */
    void identifierChanged_(TipprmiObjectSkeleton const& object);
    /** Tell the observers of this process, each once. */
    void gotCreation(unsigned int const& classId, TreflectObject const& object);
    void gotDeletion(unsigned int const& classId, TreflectObject const& object);
    /** Subscribe at one broker, or at all of the group when `only` is null, but for those that are
     * known not to have the class; `existing`, if given, becomes the objects that exist there. */
    void registerForOCN(unsigned int classId, std::vector<TreflectObject>* existing,
                        TreflectOrbId const* only) OSW_REQUIRES_PERMISSION;
    void registerForODN(unsigned int classId, TreflectOrbId const* only) OSW_REQUIRES_PERMISSION;
    /** Cancel at all brokers of the group. */
    void unregisterFromOCN(unsigned int classId);
    void unregisterFromODN(unsigned int classId);
    /** What subscriptions and cancellations of other brokers do; `existing`, if given, becomes the
     * objects that exist here. */
    void addRemoteCreationObserver(unsigned int const& classId, TreflectOrbId const& orb,
                                   TipprmiSequence<TreflectObject, 0u>* existing)
        OSW_REQUIRES_PERMISSION;
    void addRemoteDeletionObserver(unsigned int const& classId,
                                   TreflectOrbId const& orb) OSW_REQUIRES_PERMISSION;
    void removeRemoteObserver(unsigned int const& classId,
                              TreflectOrbId const& orb) OSW_REQUIRES_PERMISSION;
    /** Subscribes at a broker that came up for all classes that are observed here, and tells what
     * it has to those who have not heard of it. Waits for the broker. */
    void orbAppeared(TreflectOrbId const& id);
    /** Starts one more worker; the pool may end it at once if it has enough. The broker does so by
     * itself when work waits and nobody is idle. No effect on a broker that is being deleted. */
    void startReflectWorker();
    /** Body of a worker: serves messages until the pool has enough idle workers. */
    void dispatchEntry();
    /** Checks a message and, with `output`, logs what it is about. */
    void testInfoAboutMessage(Transport::TerminationId const& target,
                              TreflectMessage const& message, bool output) const;
    /** Tells the target of `request` that its answer did not come in time, and resets the unit. */
    [[noreturn]] void waitingTooLongFor(Transport::TerminationId const& target,
                                        TreflectMessage request, int minutes) const;

private:
    friend class BrokerLifecycle;
    friend class BrokerRequest;
    friend class BrokerView;
    friend class ClassRecords;
    friend class forwardMsgCleanup;
    struct Parts;
    struct OngoingRequestId;
    class OutgoingCall;
    class IncomingMessage;
    class WorkLoop;

    explicit TreflectORB(NamespaceId const& ns);
    void receiveResponseFailure_(TreflectMessage const& message);
    void deliverResponse_(TreflectMessage const& response);
    /** Whether a shortage of memory or threads is waited for a little: what has been queued may
     * have nobody else to serve it. */
    enum class Patience { None, Some };
    /** Starts a worker that the message queue has counted already. */
    void startCountedWorker_(Patience patience);
    void countReturnedCall_(Transport::TerminationId target);
    void reportUnexpected_(TreflectMessage const& response);
    void reportForged_(TreflectMessage const& response, Transport::TerminationId target);
    bool enqueue_(Transport::AddressedMessage const& message);
    void sendBack_(Transport::AddressedMessage const& message);
    void holdBack_(Transport::TerminationId sender);
    /** Takes from a sender that was held back again; does nothing for none. Any thread. */
    void goOn_(Transport::TerminationId sender) const;
    /** A response of `target` is going to be awaited: it must not be held back. */
    void letAnswer_(Transport::TerminationId target) const;
    /** Hands a message to the transport in this broker's name; 1 when taken, else 0. */
    int issueTo_(Transport::TerminationId target, TreflectMessage& message) const;
    /** Whether others get the run permission before a request is issued, or only afterwards, so
     * that it leaves ahead of whatever they send. */
    enum class GiveWay { BeforeIssuing, AfterIssuing };
    bool forward_(Transport::TerminationId target, bool withResponse, TreflectMessage& message,
                  TipprmiStream& response, GiveWay when) const;
    int issueAnswer_(Transport::TerminationId target, TreflectMessage& message) const;
    bool turnAway_(Transport::TerminationId target, TreflectMessage const& message,
                   TipprmiStream& response) const;
    void closeCalls_();
    /** This broker's answer to a query; its counters start afresh. With the run permission. */
    PerfCntInfo takePerfCnts_() const OSW_REQUIRES_PERMISSION;
    /** False, and an empty info, when the broker did not answer readably. */
    bool queryPerfCnts_(Transport::TerminationId const& target, PerfCntInfo& info) const;
    void displayMore_() const;
    /** A broker that came up is served on the transport's thread, or by a worker. */
    void catchUpLater_(Transport::TerminationId const& newcomer);
    void catchUpByWorker_(Transport::TerminationId const& newcomer);
    void catchUpWith_(Transport::TerminationId const& newcomer);
    void caughtUpWith_(Transport::TerminationId const& newcomer);

    /// By the value of the namespace. Set once the broker can be used, cleared when it has gone;
    /// written under the mutex of BrokerLifecycle, read without it.
    static std::array<std::atomic<TreflectORB*>, 256> singletonInstances_;

    NamespaceId const namespace_;
    TreflectOrbId const orbId_;
    std::unique_ptr<Parts> const parts_;
};

/** The answer to a search: where an object is. A value. */
class REFLECTORB_API TreflectORB::TreflectObjectLocation : public TreflectObjectLocationIf {
public:
    /** Not found yet; a name of the form "rmi_%X_%X" gives broker and internal id at once. */
    explicit TreflectObjectLocation(TipprmiOID const& oid);
    /** Found: the internal id at the broker, the object itself (not owned) when it is in this
     * process, else null, and the identifier. */
    TreflectObjectLocation(unsigned int const& ioid, TreflectOrbId const& orb,
                           TipprmiObjectSkeleton* server, TipprmiOID const& oid);
    ~TreflectObjectLocation() override;

    bool hasOID() const override;
    TipprmiOID getOID() const override;
    TreflectOrbId orbId() const override;
    unsigned int getInternalOID() const override;
    NamespaceId getNamespaceId() const override;
    TipprmiObjectSkeleton* getServer() const override;
    /** The object itself, not owned; null for one of another process. */
    void setServer(TipprmiObjectSkeleton* server) { server_ = server; }

    /** Reads what operator<< wrote; the namespace of the identifier and the server stay as they
     * are. */
    friend REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream,
                                                    TreflectObjectLocation& location);

private:
    unsigned int ioid_ = 0;
    TreflectOrbId orbId_;
    TipprmiOID oid_;
    TipprmiObjectSkeleton* server_ = nullptr;  // not owned
};

/**
 * What a broker has sent to one destination. A value.
 *
 * Wire form: the three fields in their order, 4 bytes each; the termination in the byte order of
 * the sender, as everywhere.
 */
struct REFLECTORB_API TreflectORB::PerfCnts {
    PerfCnts() = default;
    /** Counters as they are given. */
    PerfCnts(Transport::TerminationId destination, unsigned int requestsSent,
             unsigned int requestsFailed)
        : termination(destination), sent(requestsSent), failed(requestsFailed) {}

    Transport::TerminationId termination;  ///< the destination
    unsigned int sent = 0;                 ///< requests and one-way messages sent there
    unsigned int failed = 0;               ///< those that could not be sent or were not answered

    friend REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream,
                                                    PerfCnts const& counters);
    friend REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, PerfCnts& counters);
};

/** What one broker tells of its traffic. A value. */
struct TreflectORB::PerfCntInfo {
    std::string actor;                                    ///< name of its process
    TipprmiSequence<TreflectORB::PerfCnts, 0u> counters;  ///< ascending by destination
};

/** The answer of one of several brokers. A value. */
struct TreflectORB::PerfCntMultInfo {
    PerfCntMultInfo() = default;
    /** What a broker has answered. */
    PerfCntMultInfo(Transport::TerminationId broker, PerfCntInfo answer)
        : termination(broker), info(std::move(answer)) {}

    Transport::TerminationId termination;  ///< who answered
    PerfCntInfo info;                      ///< empty when it did not
};

/** One broker of a group, as getBrokers found it. A value. */
struct TreflectORB::BrokerInfo {
    Transport::TerminationId termination;  ///< its transport address
    TreflectOrbId orbId;                   ///< its id as a broker
    bool answered = false;                 ///< within the time that getPerfCnts allows
    PerfCntInfo info;                      ///< empty when it did not answer
};

/** Makes the broker of NSID_UNIT ahead of its first use. Any thread. */
REFLECTORB_API void preCreateReflectOrb();
/** Stops and deletes all brokers of the process, see TreflectORB::prepareForDeletion. */
REFLECTORB_API void prepareOrbForDeletion();
