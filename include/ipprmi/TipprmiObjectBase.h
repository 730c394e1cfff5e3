#pragma once

#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiOID.h"
#include "oswrap/Export.h"
#include "reflect/TreflectOrbId.h"

/**
 * Base of everything that can be called remotely: an internal object id, which says at its broker
 * which object is meant, and an identifier. Used under the run permission.
 *
 * Virtual operations in slot order: destructor, getOID, getInternalOID, getNamespaceId, orbId,
 * dispatch, setExceptionContainer, getExceptionContainer, hasOID.
 */
class REFLECTORB_API TipprmiObjectBase {
public:
    /** Both are taken as they are; a broker gives a server object its internal id when the object
     * is registered. */
    TipprmiObjectBase(TipprmiOID const& oid, unsigned int internalOid);
    TipprmiObjectBase(TipprmiObjectBase const&) = default;
    TipprmiObjectBase& operator=(TipprmiObjectBase const&) = default;
    virtual ~TipprmiObjectBase();

    /** The identifier; without one a made-up "rmi_%X_%X" of broker and internal id in NSID_UNIT. */
    virtual TipprmiOID getOID() const;
    /** 32 bits; 0 means none. */
    virtual unsigned int getInternalOID() const;
    /** The identifier's namespace. */
    virtual NamespaceId getNamespaceId() const;
    /** The broker that serves the object; 0 is no broker. */
    virtual TreflectOrbId orbId() const = 0;

// A stub answers its own dispatch with a code and hides this one on purpose.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
    /** Serves a call: class code, method code, arguments in, results out. False, as always here:
     * not handled. */
    virtual bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                          TipprmiStream& out);
#pragma GCC diagnostic pop

    /** Only for derived classes to override: logs at level 2 that nobody should call it. */
    virtual void setExceptionContainer(TipprmiExceptionContainer const& container);
    /** Likewise; answers an empty container. */
    virtual TipprmiExceptionContainer getExceptionContainer() const;
    /** Whether the identifier has a text. */
    virtual bool hasOID() const;

    /** A server object is found under its new identifier from now on. */
    void setOID(TipprmiOID const& oid);
    /** Gives the object another internal id, which only a broker may do for one that it serves. */
    void setInternalOID(unsigned int internalOid) {
        internalOid_ = internalOid;
    }

protected:
    /** The identifier as it is, with or without a text. */
    TipprmiOID const& oid() const {
        return oid_;
    }
    /** The internal id as it is; 0 for none. */
    unsigned int internalOid() const {
        return internalOid_;
    }

private:
    unsigned int internalOid_;  // guarded by the run permission
    TipprmiOID oid_;            // guarded by the run permission
};
