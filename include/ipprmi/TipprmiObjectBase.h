#pragma once

#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiOID.h"
#include "reflect/TreflectOrbId.h"

/** Base of everything that can be called remotely: an internal object id and an identifier. */
class REFLECTORB_API TipprmiObjectBase {
public:
    TipprmiObjectBase(TipprmiOID const& oid, unsigned int internalOid);
    TipprmiObjectBase(TipprmiObjectBase const&) = default;
    TipprmiObjectBase& operator=(TipprmiObjectBase const&) = default;
    virtual ~TipprmiObjectBase();

    /** The identifier; without one a made-up "rmi_%X_%X" of broker and internal id in NSID_UNIT. */
    virtual TipprmiOID getOID() const;
    virtual unsigned int getInternalOID() const;
    virtual NamespaceId getNamespaceId() const;
    virtual TreflectOrbId orbId() const = 0;
    /** Serves a call: class code, method code, arguments in, results out. False: not handled. */
    virtual bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                          TipprmiStream& out);
    virtual void setExceptionContainer(TipprmiExceptionContainer const& container);
    virtual TipprmiExceptionContainer getExceptionContainer() const;
    /** Whether the identifier has a text. */
    virtual bool hasOID() const;

    void setOID(TipprmiOID const& oid) { oid_ = oid; }
    void setInternalOID(unsigned int internalOid) { internalOid_ = internalOid; }

protected:
    TipprmiOID const& oid() const { return oid_; }

private:
    unsigned int internalOid_;
    TipprmiOID oid_;
};
