// Members that are bound to a handle by name.
#include "reflect/TreflectAttribute.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/TreflectOperation.h"
#include "reflect/TreflectTieds.h"

namespace {

template <class T>
struct MetaOf;
template <>
struct MetaOf<TreflectAttribute> {
    using Type = TreflectMetaAttribute;
};
template <>
struct MetaOf<TreflectOperation> {
    using Type = TreflectMetaOperation;
};

}  // namespace

/** A bound member that is tied to a handle. */
template <class T>
class TreflectMemberFactory<T>::Tied : public TreflectTieds::TiedBase {
public:
    Tied(typename MetaOf<T>::Type const* meta, TreflectObject const* object)
        : member_(meta, object) {}

    T* member() { return &member_; }

private:
    T member_;
};

template <class T>
TreflectMemberFactory<T>::~TreflectMemberFactory() = default;

template <class T>
T* TreflectMemberFactory<T>::getTied(TreflectObject const* object) const {
    auto const* const meta = static_cast<typename MetaOf<T>::Type const*>(this);
    auto* const tied = new Tied(meta, object);
    OSWrap::SmartPointer<TreflectTieds::TiedBase> const owner(tied);
    TreflectTieds::instance()->adoptTied(object, owner);
    return tied->member();
}

template class TreflectMemberFactory<TreflectAttribute>;
template class TreflectMemberFactory<TreflectOperation>;
