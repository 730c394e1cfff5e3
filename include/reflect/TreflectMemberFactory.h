#pragma once

#include "reflect/TreflectTieds.h"

class TreflectAttribute;
class TreflectObject;
class TreflectOperation;

/**
 * What a meta member is besides: a factory of bound members, each of which ties the meta member to
 * a handle. T is TreflectAttribute or TreflectOperation.
 */
template <class T>
class TreflectMemberFactory {
public:
    class Tied;

    virtual ~TreflectMemberFactory();
    /** A new bound member at each call, which lives as long as the handle `object`. Owned by
     * TreflectTieds. */
    T* getTied(TreflectObject const* object) const;
};

extern template class REFLECTORB_API TreflectMemberFactory<TreflectAttribute>;
extern template class REFLECTORB_API TreflectMemberFactory<TreflectOperation>;
