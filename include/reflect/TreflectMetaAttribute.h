#pragma once

#include <memory>
#include <string>
#include <vector>

#include "oswrap/Mutex.h"
#include "reflect/TreflectMemberFactory.h"
#include "reflect/TreflectMetaMember.h"
#include "reflect/TreflectValueCheck.h"

class TreflectMetaOperation;

/** An attribute of a class: a pair of operations, one that reads its value and one that writes it.
 */
class REFLECTORB_API TreflectMetaAttribute : public TreflectMetaMember,
                                             public TreflectMemberFactory<TreflectAttribute> {
public:
    /** The operations are not owned; without `set` the attribute is read-only. */
    TreflectMetaAttribute(std::string const& name, TreflectMetaObject const* owner,
                          TreflectMetaOperation const* get, TreflectMetaOperation const* set);
    ~TreflectMetaAttribute() override;

    /** Number of elements: 1, but for array and sequence attributes. */
    int constLength() const { return constLength_; }
    /** Null only if made without, or when the class that declares it has gone. */
    TreflectMetaOperation const* metaOperGet() const { return get_; }
    /** Null when the attribute is read-only; likewise. */
    TreflectMetaOperation const* metaOperSet() const { return set_; }
    /** The class of the value, when that is itself a reflective object; else null. */
    TreflectMetaObject* typeMeta() const { return typeMeta_; }
    /** The name of that class; empty without one. */
    std::string const& typeName() const { return typeName_; }
    /** Says that the value is a reflective object of this class, which is not owned. */
    void registerType(TreflectMetaObject* typeMeta);

    /** How values of a C++ type go with the type that the class's table tells of the attribute:
     * compared when it is first asked for, and kept as long as this object or longer. The class is
     * complete by then. Under the run permission; any thread as long as no class goes. */
    std::shared_ptr<TreflectValueCheck const> check(TreflectValueCheck::Type type,
                                                    TreflectValueCheck::Use use) const;

protected:
    /** Made when a class is completed. None of what it is given is owned; see the operations
     * that ask for it. */
    TreflectMetaAttribute(std::string const& name, TreflectMetaObject const* owner,
                          TreflectMetaOperation const* get, TreflectMetaOperation const* set,
                          int constLength);

private:
    friend class TreflectMetaObject;

    std::shared_ptr<TreflectValueCheck const> findCheck(TreflectValueCheck::Type type,
                                                        TreflectValueCheck::Use use) const
        OSW_REQUIRES(mutex_);
    /** Drops what leads to a class that goes. */
    void forget(TreflectMetaObject const& gone);

    int const constLength_;
    // Fixed once the class is complete, but for classes that go; guarded by the run permission.
    std::string typeName_;
    TreflectMetaOperation const* get_;
    TreflectMetaOperation const* set_;
    TreflectMetaObject* typeMeta_ = nullptr;
    mutable OSWrap::Mutex mutex_;  // a leaf
    mutable std::vector<std::shared_ptr<TreflectValueCheck const>> checks_ OSW_GUARDED_BY(mutex_);
};

/**
 * An attribute of a fixed number of values. What its own `getTied` makes is read element by element
 * when one is selected; what a handle finds by name only where the class's table tells the type.
 */
class REFLECTORB_API TreflectArrayMetaAttribute : public TreflectMetaAttribute {
public:
    /** As TreflectMetaAttribute, with the number of elements. */
    TreflectArrayMetaAttribute(std::string const& name, TreflectMetaObject const* owner,
                               TreflectMetaOperation const* get, TreflectMetaOperation const* set,
                               int length);
    /** A bound attribute, set to an array: see TreflectMemberFactory. */
    virtual TreflectAttribute* getTied(TreflectObject const* object) const;
};

/** The same for an attribute whose value is a TipprmiSequence. */
class REFLECTORB_API TreflectSequenceMetaAttribute : public TreflectMetaAttribute {
public:
    /** As TreflectMetaAttribute. */
    TreflectSequenceMetaAttribute(std::string const& name, TreflectMetaObject const* owner,
                                  TreflectMetaOperation const* get,
                                  TreflectMetaOperation const* set, int length);
    /** A bound attribute, set to a sequence: see TreflectMemberFactory. */
    virtual TreflectAttribute* getTied(TreflectObject const* object) const;
};
