#include "reflect/objects/AttributeChange.h"

#include "reflect/TreflectAttribute.h"
#include "reflect/TreflectMetaObject.h"
#include "reflect/TreflectMetaOperation.h"

namespace {

/** A value of whatever type: all that a response has left. */
struct WholeValue {
    TipprmiAny bytes;
};

TipprmiStream& operator>>(TipprmiStream& stream, WholeValue& value) {
    if (!value.bytes.takeRest(stream))
        stream.stopUnmarshalling();
    return stream;
}

}  // namespace

// Compared with no type of a table.
template <>
struct TreflectTypeName<WholeValue> {
    static std::string text() { return {}; }
};

std::optional<ChangeKey> ChangeKey::of(TreflectMetaAttribute const& attribute) {
    TreflectMetaOperation const* const set = attribute.metaOperSet();
    TreflectMetaOperation const* const operation = set ? set : attribute.metaOperGet();
    TreflectMetaObject const* const declaring =
        operation ? operation->containingMetaObject() : nullptr;
    if (!declaring)
        return std::nullopt;
    auto const code = static_cast<unsigned int>(operation->id());
    return ChangeKey{declaring, declaring->getClassId(), set ? code : code | kMark};
}

std::optional<TipprmiAny> wholeValue(TreflectObject const& object,
                                     TreflectMetaAttribute const& attribute) {
    TreflectAttribute const bound(&attribute, &object);
    TipprmiResult<WholeValue> const value = bound.fetch<WholeValue>();
    if (!value)
        return std::nullopt;
    return value.value().bytes;
}
