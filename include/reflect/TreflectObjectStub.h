#pragma once

#include "handler_threads/RunPermission.h"
#include "ipprmi/TipprmiObjectBase.h"
#include "reflect/TreflectObjectLocationIf.h"
#include "reflect/TreflectObjectStubContainer.h"

class TreflectMetaObject;
class TreflectMetaOperation;
class TreflectORB;
class TreflectObject;
class TreflectObserver;
class TreflectServerObject;
template <class T, unsigned int Bound>
class TipprmiSequence;

/**
 * The one shared, reference-counted standing point through which all handles of a process reach an
 * object, wherever it lives. Handles get their stubs from TreflectObjectHandler, which makes,
 * counts and frees them. Used under the run permission.
 *
 * | state | server | internal id | what a call does |
 * |---|---|---|---|
 * | local | the skeleton | any | calls the skeleton |
 * | remote | null | not 0 | sends a request to the broker |
 * | not connected | null | 0 | looks for the object once more, then fails |
 * | invalid | INVALIDOBJECT | any | fails; the broker has gone, or the local object |
 *
 * The questions that every reflective object answers are asked of an object of this process
 * directly; a question that fails yields a default value, and a log line.
 *
 * Virtual operations after those of the location, in slot order: forwardMsg, dispatch, meta,
 * getAbsName, getRelName, getParent, getChild, getChilds, registerChild, unregisterChild, the three
 * connect, isConnected, className, setExceptionContainer, getExceptionContainer, registerObserver,
 * removeObserver.
 */
class REFLECTORB_API TreflectObjectStub : public TreflectObjectLocationIf,
                                          public TipprmiObjectBase {
public:
    /** Marks a stub whose object has gone: a pointer with every bit set. */
    static TipprmiObjectSkeleton* const INVALIDOBJECT;

    /** On nothing: no identifier (in NSID_UNIT), internal id 0, broker 0. */
    TreflectObjectStub();
    /** What is at a location; logs at level 3 when it has neither identifier nor internal id. */
    explicit TreflectObjectStub(TreflectObjectLocationIf const& location);
    /** An object of this process; logs at level 3 when its internal id is 0. */
    explicit TreflectObjectStub(TipprmiObjectSkeleton* skeleton);
    /** Copies all but the count; logs at level 3 when the internal id is 0. */
    TreflectObjectStub(TreflectObjectStub const& other);
    TreflectObjectStub& operator=(TreflectObjectStub const& other);
    ~TreflectObjectStub() override;

    bool hasOID() const override;
    TipprmiOID getOID() const override;
    TreflectOrbId orbId() const override;
    unsigned int getInternalOID() const override;
    NamespaceId getNamespaceId() const override;
    /** The object itself when it is served in this process; null for an invalid stub. */
    TipprmiObjectSkeleton* getServer() const override;

    /** Has the broker of NSID_UNIT carry a request; 1 on success. */
    virtual int forwardMsg(TreflectOrbId const& to, bool withResponse, TipprmiStream& request,
                           TipprmiStream& response) const;

// Clients are answered with a code; the skeletons' dispatch is hidden on purpose.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
    /** Calls the object; 1 on success, else a failure code, and `out` holds an exception container
     * of type 1 (but for a local object, whose own affair that is). */
    virtual int dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                         TipprmiStream& out) const;
#pragma GCC diagnostic pop

    // See TreflectObject on each of these.
    /** The class of the object; see TreflectObject, as for what follows. */
    virtual TreflectMetaObject const* meta() const;
    /** The object's place in the tree: see the functions of these names of TreflectObject. */
    virtual std::string getAbsName() const;
    virtual std::string getRelName() const;
    virtual TreflectObject getParent() const;
    virtual TreflectObject getChild(std::string const& name) const;
    virtual TipprmiSequence<TreflectObject, 0u> getChilds() const;
    /** Enter a child into the tree, or take it out: see TreflectObject. */
    virtual void registerChild(std::string const& name, TreflectObject const& child) const;
    virtual void unregisterChild(std::string const& name) const;

    /** Looks for the object at the broker of the identifier's namespace and leads to it from now
     * on. No effect on an invalid stub. `orb` is of no account. */
    virtual void connect(TreflectORB const* orb, TipprmiOID const& oid);
    virtual void connect(TipprmiOID const& oid);
    /** Leads to an object of this process, also an invalid stub; null: to nothing. */
    virtual void connect(TipprmiObjectSkeleton* skeleton);
    /** Not invalid, and the object has been found. */
    virtual bool isConnected() const;
    /** A name for diagnostics, not that of the object's class. */
    virtual char const* className() const;
    /** Sets the container that starts every response of the object. No effect on an invalid stub.
     */
    virtual void setExceptionContainer(TipprmiExceptionContainer const& container) const;
    /** The object's container; from an invalid stub one with a TipprmiGeneralException of code 0.
     */
    TipprmiExceptionContainer getExceptionContainer() const override;
    /** Begin and end observing calls: see TreflectObject. */
    virtual void registerObserver(unsigned int kind, TreflectMetaOperation const* operation,
                                  TreflectObserver* observer) const;
    virtual void removeObserver(TreflectMetaOperation const* operation,
                                TreflectObserver* observer) const;
    /** As registerObserver; false when the object has not answered that it is registered. */
    bool observe(unsigned int kind, TreflectMetaOperation const* operation,
                 TreflectObserver* observer) const;
    /** As registerObserver before calls, but the observer's end forbids them. False when it is not
     * registered: the object cannot be reached, or is of a version that knows no guards. */
    bool registerGuard(TreflectMetaOperation const* operation, TreflectObserver* observer) const;
    /** Ends the registrations of guards of an operation that have gone; how many there were. */
    unsigned int removeLostGuards(TreflectMetaOperation const* operation) const;

    /** False once the object, or its broker, is known to have gone. */
    bool isValid() const {
        return server_ != INVALIDOBJECT;
    }
    /** Fails all further calls. */
    void setInvalid() {
        server_ = INVALIDOBJECT;
    }

    /** Starts a request: the call header (internal id, whether a response is awaited, class code,
     * method code), or nothing for an object of this process. Leaves the stream of an invalid stub
     * as it is. Looks once for an object that has not been found yet. */
    TipprmiStream& prepareRequestStream(bool withResponse, unsigned int cc, unsigned int mc,
                                        TipprmiStream& stream) const;
    /** Starts reading a response: its exception container; of type 1, every further read fails. */
    TipprmiStream& prepareResponseStream(bool withResponse, TipprmiStream& stream) const;

    /** For the handles that share the stub: one more. */
    void incRefCount() {
        ++refCount_;
    }
    /** True when the last handle has let go. */
    bool decRefCount() {
        return --refCount_ < 1;
    }
    /** How many handles share the stub. */
    int refCount() const {
        return refCount_;
    }

    friend REFLECTORB_API bool operator==(TreflectObjectStub const& a, TreflectObjectStub const& b);

    /** Routes to the const operation. Stays behind all other virtual operations, so that it
     * displaces none of them from its slot. */
    void setExceptionContainer(TipprmiExceptionContainer const& container) override;

protected:
    /** On nothing, but with an identifier. */
    explicit TreflectObjectStub(TipprmiOID const& oid);

private:
    friend class TreflectObjectStubContainer;

    // The table of stubs is ordered by them: they change through `lead` only.
    using TipprmiObjectBase::setInternalOID;
    using TipprmiObjectBase::setOID;

    TipprmiStream& prepareRequestStream_(bool withResponse, unsigned int cc, unsigned int mc,
                                         TipprmiStream& stream) const;
    TipprmiStream& prepareResponseStream_(bool withResponse, TipprmiStream& stream) const;
    void reconnect(unsigned int cc, unsigned int mc) const;
    int dispatchToServer(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                         TipprmiStream& out) const;
    /** Leads to another object, in the table of stubs as well. */
    void lead(TipprmiOID const& oid, unsigned int internalOid, TreflectOrbId orb,
              TipprmiObjectSkeleton* server);

    class Question;
    TreflectMetaObject const* classOf(unsigned int id) const;
    /** The object itself when it is a reflective one of this process. */
    TreflectServerObject* reflectiveServer() const;

    TreflectOrbId orbId_;                      // guarded by the run permission
    TipprmiObjectSkeleton* server_ = nullptr;  // not owned; guarded by the run permission
    int refCount_ = 0;                         // guarded by the run permission
    // The class that the object was last found to have. Guarded by the run permission.
    mutable TreflectMetaObject const* metaCache_ = nullptr;
    TreflectObjectStubContainer::Place place_ OSW_GUARDED_BY_PERMISSION;
};

/** Equal identifiers when both have one, else equal in internal id, broker, namespace and server.
 */
REFLECTORB_API bool operator==(TreflectObjectStub const& a, TreflectObjectStub const& b);
