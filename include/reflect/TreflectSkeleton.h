#pragma once

#include "reflect/TreflectMetaClass.h"
#include "reflect/TreflectServerObject.h"

/**
 * A server object of the class that `Meta` describes: answers the questions for its class, so that
 * a skeleton class has only its operations and their dispatch to write:
 *
 *     class LampSkeleton : public TreflectSkeleton<lampMeta> {
 *     public:
 *         using TreflectSkeleton::TreflectSkeleton;
 *         ...
 *
 * `Meta` is a variable at namespace scope. `Base` is the skeleton of the base class, if it has one:
 * `TreflectSkeleton<lampMeta, DeviceSkeleton>`. A skeleton of several bases, or of a class that is
 * known only at run time, derives from TreflectServerObject and answers for itself.
 */
template <TreflectMetaClass const& Meta, class Base = TreflectServerObject>
class TreflectSkeleton : public Base {
public:
    using Base::Base;

    /** The class; not owned. */
    static TreflectMetaClass const& metaClass() { return Meta; }

    unsigned int getServerClassId() const override { return Meta.getClassId(); }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return Meta.classIds();
    }
};
