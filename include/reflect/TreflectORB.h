#pragma once

#include "ipprmi/TipprmiOID.h"
#include "ipprmi/TipprmiStream.h"
#include "reflect/NamespaceId.h"
#include "reflect/TreflectMessage.h"
#include "reflect/TreflectObjectLocationIf.h"
#include "reflect/TreflectOrbId.h"
#include "transport/TerminationImpl.h"

class TipprmiObjectSkeleton;

/**
 * The broker of one namespace in this process. Sends requests and waits for their responses, serves
 * requests of others with a pool of worker threads, keeps the server objects of its namespace and
 * finds those of others. Brokers are made on first use and live until prepareOrbForDeletion or
 * process exit.
 */
class REFLECTORB_API TreflectORB : public Transport::TerminationImpl {
public:
    class TreflectObjectLocation;

    /**
     * The broker of a namespace, made and started on first use (which takes 100 ms). Null when it
     * could not be made, for a value outside 0 to 255 (logged), and for an absent one while brokers
     * are being deleted or the process is exiting. Any thread.
     */
    static TreflectORB* getInstance(NamespaceId ns);
    /** Stops and deletes all brokers, in the order of their namespaces. */
    static void prepareForDeletion();

    ~TreflectORB() override;

    bool receive(Transport::AddressedMessage const& message) override;
    bool receiveError(Transport::AddressedMessage const& message) override;
    void appeared(Transport::Termination& termination) override;
    void disappeare(Transport::Termination& termination) override;

    /** Finds an object by identifier: here, else at every other broker of the group in turn. */
    virtual TreflectObjectLocation locateObject(TipprmiOID const& oid) const;
    virtual bool registerObject(TipprmiObjectSkeleton* object);
    virtual bool unregisterObject(TipprmiObjectSkeleton const* object);
    /** Sends a call's request and, when a response is awaited, waits for it and puts it into
     * `response`. True on success; else `response` holds an exception container. */
    virtual bool forwardMsg(TreflectOrbId const& target, bool withResponse, TipprmiStream& request,
                            TipprmiStream& response);
    /** Asks one broker for an object; its internal id there, or 0. */
    virtual unsigned int resolve(Transport::TerminationId const& target, TipprmiOID oid) const;

    TreflectOrbId orbId() const;
    Transport::GroupId getMyGroup(NamespaceId const& ns) const;
    NamespaceId getNamespaceFromGroup(Transport::GroupId const& group) const;
    TreflectOrbId convertId(Transport::TerminationId const& id) const;
    Transport::TerminationId convertId(TreflectOrbId const& id) const;

    /** A request of `size` payload bytes: kind 2, transaction id 0. */
    TreflectMessage allocateRequest(unsigned int size) const;
    /** A response of `size` payload bytes to `request`. */
    TreflectMessage allocateResponse(TreflectMessage const& request, unsigned int size) const;
    /** A copy of `message` with `size` payload bytes. */
    TreflectMessage reallocateMessage(TreflectMessage const& message, unsigned int size) const;

    /** The process-wide run permission, see TreflectRunPermission. */
    static void enterHandlerState(bool getPermission);
    static void leaveHandlerState(bool releasePermission);
    static void checkHandlerState();
    static void getRunPermission();
    static void releaseRunPermission();
    static bool hasRunPermission();
    static bool isHandlerThread();
    static unsigned long getRunPermissionCount();
    static unsigned long getRunPermissionOwner();

    /** Logs the event, runs the log-collection script and aborts the process. */
    [[noreturn]] void resetUnit() const;

private:
    explicit TreflectORB(NamespaceId const& ns);
};

/** The answer to a search: where an object is. A value. */
class REFLECTORB_API TreflectORB::TreflectObjectLocation : public TreflectObjectLocationIf {
public:
    /** Not found yet; a name of the form "rmi_%X_%X" gives broker and internal id at once. */
    explicit TreflectObjectLocation(TipprmiOID const& oid);
    TreflectObjectLocation(unsigned int const& ioid, TreflectOrbId const& orb,
                           TipprmiObjectSkeleton* server, TipprmiOID const& oid);
    ~TreflectObjectLocation() override;

    bool hasOID() const override;
    TipprmiOID getOID() const override;
    TreflectOrbId orbId() const override;
    unsigned int getInternalOID() const override;
    NamespaceId getNamespaceId() const override;
    TipprmiObjectSkeleton* getServer() const override;

    friend REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream,
                                                    TreflectObjectLocation& location);

private:
    unsigned int ioid_ = 0;
    TreflectOrbId orbId_;
    TipprmiOID oid_;
    TipprmiObjectSkeleton* server_ = nullptr;  // not owned
};

/** Makes the broker of NSID_UNIT ahead of its first use. */
REFLECTORB_API void preCreateReflectOrb();
/** Stops and deletes all brokers of the process; they can be made anew afterwards. */
REFLECTORB_API void prepareOrbForDeletion();
