#pragma once

#include "reflect/TreflectServerObject.h"

/** Server side of an observer: takes the notifications that come from other processes. Derive from
 * TreflectObserver instead. Virtual operation after those of server objects: notify. */
class REFLECTORB_API TreflectObserverSkeleton : public TreflectServerObject {
public:
    /** The class id of all observers, and the class code of notifications. */
    static constexpr unsigned int kClassId = 0x641E8FCD;

    /** See TreflectServerObject. */
    TreflectObserverSkeleton(TipprmiOID const& oid, TreflectObject const* parent,
                             std::string const& name);
    ~TreflectObserverSkeleton() override;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;
    /** The observer's own handle, made when first asked for; owned by the observer. */
    TreflectObserverClient* getClient() const override;
    unsigned int getServerClassId() const override;
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override;

    /** See TreflectObserverClient::notify. */
    virtual bool notify(TreflectObject const& source, unsigned int const& cc,
                        unsigned int const& mc, TipprmiSequence<TipprmiAny, 0u> const& arguments,
                        bool& alive) = 0;

private:
    void serveNotification(TipprmiStream& in, TipprmiStream& out);
};
