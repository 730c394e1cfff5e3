#pragma once

#include <cstddef>
#include <string>

#include "ipprmi/TipprmiObjectClient.h"
#include "ipprmi/TipprmiSequence.h"
#include "oswrap/Mutex.h"

class TreflectAttribute;
class TreflectErrorAttribute;
class TreflectErrorOperation;
class TreflectMetaObject;
class TreflectMetaOperation;
class TreflectObserver;
class TreflectOperation;

/**
 * A handle on a reflective object anywhere: asks it for its classes, its place in the tree of names
 * and its members by name, and has it observed. A small value, as its base is, and used like it
 * under the run permission; each question is a call when the object lives in another process.
 *
 * Attributes and operations that are found by name belong to this very handle and live until it is
 * destroyed (an element of a sequence is, whenever the sequence changes its length); a name is
 * worth keeping instead of asking for it again. For a name that the class does not have there is a
 * null object, whose calls do nothing and answer an error.
 *
 * While a call waits, another thread may assign the handle. It may destroy it as well while an
 * attribute is read or written, an operation called or a question asked, but not while `attribute`
 * or `operation` looks for a name, since what they find belongs to the handle.
 *
 * Virtual operations after those of the base, in slot order: attribute, operation, meta,
 * getAbsName, getRelName, getParent, getChild, getChilds, registerChild, unregisterChild, connect
 * (by identifier alone), registerObserver, removeObserver.
 *
 * Handles made by `new` come from a pool of their own.
 */
class REFLECTORB_API TreflectObject : public TipprmiObjectClient {
public:
    /** A handle on nothing. */
    TreflectObject() = default;
    /** Locates the object: may ask every broker of the group, one after the other. */
    explicit TreflectObject(TipprmiOID const& oid) : TipprmiObjectClient(oid) {}
    /** A handle on an object of this process, which is not owned; on nothing when null. */
    explicit TreflectObject(TipprmiObjectSkeleton const* skeleton)
        : TipprmiObjectClient(skeleton) {}
    /** Shares the stub; what is bound to `other` stays there. */
    TreflectObject(TreflectObject const& other) = default;
    TreflectObject& operator=(TreflectObject const& other) = default;
    /** Ends all attributes and operations that this handle has handed out. */
    ~TreflectObject() override;

    using TipprmiObjectClient::connect;
    void connect(TipprmiObjectSkeleton* skeleton) override;
    void connect(TreflectORB const* orb, TipprmiOID const& oid) override;

    /** A handle of a client class on the same object, whose class is not asked for. */
    template <class Client>
    Client as() const {
        Client typed;
        typed.share_(*this);
        return typed;
    }

    /**
     * The attribute of this name, bound to this handle; a new one at each call. The null attribute,
     * and a line at level 3, when the class has none. Asks the object for its classes twice: keep
     * the attribute to read it often.
     */
    virtual TreflectAttribute& attribute(std::string const& name) const;
    /** Likewise for operations. */
    virtual TreflectOperation& operation(std::string const& name) const;
    /** The most special class of the object that this process knows; null, and a line at level 3,
     * when it knows none. Asks the object each time. */
    virtual TreflectMetaObject const* meta() const;
    /** "/" and the names of all parents and of the object, with "/" between them; empty when the
     * object cannot be reached. */
    virtual std::string getAbsName() const;
    /** The object's own name. */
    virtual std::string getRelName() const;
    /** Unconnected when there is none. */
    virtual TreflectObject getParent() const;
    /** Unconnected when there is none of this name. */
    virtual TreflectObject getChild(std::string const& name) const;
    /** In the order of their names. */
    virtual TipprmiSequence<TreflectObject, 0u> getChilds() const;
    /** Enters a child under a name, in place of one that is there. */
    virtual void registerChild(std::string const& name, TreflectObject const& child) const;
    /** Takes a child out, if it is there. */
    virtual void unregisterChild(std::string const& name) const;
    /** Leaves the present object for the one of that identifier. */
    virtual void connect(TipprmiOID const& oid);
    /** Has `observer` told of calls of an operation: before each for kind 0, when it can veto it,
     * after each for any other. Logs at level 3 when something is null. */
    virtual void registerObserver(unsigned int kind, TreflectMetaOperation const* operation,
                                  TreflectObserver* observer) const;
    /** Ends one registration before and one after calls, whatever operations they are for;
     * `operation` is of no account. */
    virtual void removeObserver(TreflectMetaOperation const* operation,
                                TreflectObserver* observer) const;

    /** A handle's memory is a cell of a pool; a derived class of another size has the heap's. Any
     * thread. */
    static void* operator new(std::size_t size);
    static void* operator new(std::size_t, void* place) { return place; }
    static void operator delete(void* cell, std::size_t size);

    /** The null objects, which live as long as the process. */
    static TreflectErrorAttribute errorAttribute;
    static TreflectErrorOperation errorOperation;

private:
    static void* newCell_() OSW_REQUIRES(poolMutex_);

    // A leaf: nothing is locked or called under it. Never destroyed.
    static OSWrap::Mutex& poolMutex_;
    static void* newList_ OSW_GUARDED_BY(poolMutex_);  // first free cell
};

REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, TreflectObject& value);

extern template class REFLECTORB_API TipprmiSequence<TreflectObject, 0u>;
