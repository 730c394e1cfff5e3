#pragma once

#include <list>
#include <map>
#include <set>
#include <string>

#include "oswrap/Export.h"
#include "reflect/TreflectParameterType.h"
#include "transport/TerminationId.h"

class InterfaceRepository;
class TreflectMetaAttribute;
class TreflectMetaOperation;
class TreflectObserver;
class TreflectServerObject;

/**
 * Describes a class at run time: its name and class id, its bases, and its attributes and
 * operations by name. There is one per class and process, normally a static object, known to the
 * InterfaceRepository from construction to destruction. TreflectMetaClass makes one from tables.
 *
 * Its members are filled in when the class is first found in the repository. No lock: complete,
 * change and look up meta objects under the run permission, or before the program's work begins.
 *
 * Virtual operations in slot order: destructor, name, completeMetaInformation.
 */
class REFLECTORB_API TreflectMetaObject {
public:
    /** An operation of a class as generated tables have it. */
    struct MetaOpData {
        char const* name;  ///< a literal
        int id;            // method code
    };
    /** An attribute of a class: its operations are "get" and "set" followed by this name. */
    struct MetaAttrData {
        char const* name;  ///< a literal
    };

    /** Enters the repository. */
    TreflectMetaObject(std::string const& name, unsigned int classId);
    /** Leaves the repository and deletes its members; bases and derived classes stay, and nobody
     * knows of it any more: attributes of derived classes that were read by an operation of this
     * one cannot be read, and those whose values were of this class tell no class. */
    virtual ~TreflectMetaObject();
    TreflectMetaObject(TreflectMetaObject const&) = delete;
    TreflectMetaObject& operator=(TreflectMetaObject const&) = delete;

    /** The class's name, unchanged for life. */
    virtual std::string const& name() const;
    /** The number by which processes know the class. */
    unsigned int getClassId() const { return classId_; }
    /** Whether this is `other` or derived from it, over any number of generations. */
    bool isA(TreflectMetaObject const* other) const;

    /** A member of the class or of one of its bases; null, and a line at level 3, when there is
     * none. */
    TreflectMetaOperation const* metaOperation(std::string const& name) const;
    /** The same in silence. */
    TreflectMetaOperation const* metaOperation_(std::string const& name) const;
    /** Likewise; logs for each class that was searched, bases first. */
    TreflectMetaAttribute const* metaAttribute(std::string const& name) const;
    /** Append all members: the class's own in the order of their names, then those of its bases.
     * One that can be reached in several ways stands there several times. */
    void operationList(std::list<TreflectMetaOperation*>& out) const;
    void attributeList(std::list<TreflectMetaAttribute*>& out) const;

    /** Direct bases and direct derived classes. */
    std::set<TreflectMetaObject*> const& parents() const { return parents_; }
    std::set<TreflectMetaObject*> const& children() const { return children_; }
    /** Makes `base` a base of this class; true. Not owned. One that is yet to be built, as a static
     * object of another file may be, becomes one when it is. */
    bool registerParent(TreflectMetaObject* base);
    /** The other half of registerParent, which calls it; true. */
    bool registerChild(TreflectMetaObject* derived);
    /** Take over a member under its name. One that had this name before is forgotten, not deleted.
     */
    void registerOperation(TreflectMetaOperation* operation);
    void registerAttribute(TreflectMetaAttribute* attribute);
    /** Adds a type with a name, to which the types of operations may refer; false, and a line at
     * level 3, when `definition` is none. */
    bool registerType(std::string const& definition);
    /** The types with names of this class, without those of its bases. */
    TreflectTypes const& types() const { return types_; }

    /**
     * Has `observer` told whenever an object of this class is created (or deleted) in any process
     * of the group, see TreflectORB::observeCreations; `plusExisting`: and at once of those that
     * exist. One that is registered several times is told once per event. False for null. Under the
     * run permission.
     */
    bool observeCreations(TreflectObserver* observer, bool plusExisting);
    bool observeDeletions(TreflectObserver* observer);
    /** Ends both. Null is ignored. When it leaves the class without observers of a kind, other
     * processes forget both kinds of this one: see endCreations. */
    void removeObserver(TreflectObserver* observer);
    /** Ends what observeCreations (observeDeletions) has begun, and nothing that another observer
     * of this process, or this one of the other kind, hears. Null is ignored. */
    void endCreations(TreflectObserver* observer);
    void endDeletions(TreflectObserver* observer);

protected:
    /** Says that a meta object is not in the repository: for classes that other processes have
     * described, of which there may be several of one id. */
    struct Unlisted {};
    /** As the public one, but leaves the repository alone. */
    TreflectMetaObject(Unlisted, std::string const& name, unsigned int classId);
    /** Whether it has entered the repository. */
    bool isListed() const { return listed_; }
    /** Whether no base has gone, and none of theirs. */
    bool isWhole() const { return whole_; }

    /** Fills in the members with the helper below. Called at every search in the repository: does
     * its work once and returns at once later. */
    virtual void completeMetaInformation() = 0;
    /**
     * Registers the operations of a table, then its attributes. An attribute needs its get
     * operation here or in a base, which must therefore be complete already; without it the rest of
     * the attributes is left out. Without a set operation it is read-only. Neither table may be
     * null (empty will do): nothing is registered then. Both cases are logged at level 3.
     */
    void completeMetaInformationHelper(MetaOpData const* operations, unsigned int operationCount,
                                       MetaAttrData const* attributes, unsigned int attributeCount);
    /** An attribute that the class itself declares; null, in silence, when there is none. */
    TreflectMetaAttribute* ownAttribute(std::string const& name) const;
    /** The operation that reads an attribute; null, and a line at level 3, when there is none. */
    TreflectMetaOperation const* getOperationOf(std::string const& attribute) const;
    /** Completes another meta object, such as a base. */
    static void complete(TreflectMetaObject& other) { other.completeMetaInformation(); }
    /** Whether a meta object is there: built already and not destroyed. Looks at its address only.
     */
    static bool isBuilt(TreflectMetaObject const* metaObject);

private:
    friend class InterfaceRepository;
    friend class TreflectAttribute;

    void linkTo(TreflectMetaObject* base);
    /** Drops what leads to a meta object that goes. */
    void forget(TreflectMetaObject const& gone);
    /** Notes in this class, and in all that are derived from it, that a base has gone. */
    void loseBase();

    std::string const name_;
    unsigned int const classId_;
    bool const listed_ = true;  // in the repository
    bool whole_ = true;         // see isWhole
    // Mutable, since a meta object may be a constant, which is completed all the same.
    mutable std::map<std::string, TreflectMetaAttribute*> attributes_;  // owned
    mutable std::map<std::string, TreflectMetaOperation*> operations_;  // owned
    mutable std::set<TreflectMetaObject*> parents_;                     // not owned
    mutable std::set<TreflectMetaObject*> children_;                    // not owned
    // Kept with the class for those who generate classes; the broker has records of its own.
    std::set<Transport::TerminationId> creationSubscribers_;
    std::set<Transport::TerminationId> deletionSubscribers_;
    std::list<TreflectObserver*> creationObservers_;
    std::list<TreflectObserver*> deletionObservers_;
    std::set<TreflectServerObject const*> instances_;
    TreflectTypes types_;
};
