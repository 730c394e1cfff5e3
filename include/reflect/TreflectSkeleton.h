#pragma once

#include "reflect/InterfaceRepository.h"
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

    static TreflectMetaClass const& metaClass() { return Meta; }

    unsigned int getServerClassId() const override { return Meta.getClassId(); }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return Meta.classIds();
    }

    /** sendCreationEvent for the object's class and each of its bases, the most special first, so
     * that who observes a base hears of it, too. Gives the permission up for each; ends when the
     * object has gone meanwhile. */
    void sendCreationEvents() const { tellAll(&TreflectServerObject::sendCreationEvent); }
    /** The same for its end: first thing in the most derived destructor. */
    void sendDeletionEvents() const { tellAll(&TreflectServerObject::sendDeletionEvent); }

private:
    void tellAll(void (TreflectServerObject::*event)(TreflectMetaObject const*) const) const {
        TreflectObservable::Life const life(*this);
        for (unsigned int const id : Meta.classIds()) {
            if (life.ended())
                return;
            if (TreflectMetaObject const* const meta =
                    InterfaceRepository::instance()->findInterface(id))
                (this->*event)(meta);
        }
    }
};
