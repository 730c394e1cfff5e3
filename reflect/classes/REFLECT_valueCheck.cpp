// Values of attributes, and what the tables of their classes tell of them.
#include "reflect/TreflectValueCheck.h"

#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaObject.h"
#include "reflect/TreflectMetaOperation.h"

namespace {

/** The type that is told for the whole value; an invalid one when none is, or several are. */
TreflectParameterType typeIn(TreflectMetaAttribute const& attribute, bool written) {
    TreflectMetaOperation const* const operation =
        written ? attribute.metaOperSet() : attribute.metaOperGet();
    std::vector<TreflectParameterType> types;
    if (operation)
        types = written ? operation->argumentTypes() : operation->resultTypes();
    return types.size() == 1 ? types.front() : TreflectParameterType("");
}

TreflectTypes typesOf(TreflectMetaAttribute const& attribute) {
    TreflectMetaObject const* const owner = attribute.containingMetaObject();
    return owner ? owner->types() : TreflectTypes();
}

std::string classOf(TreflectMetaAttribute const& attribute) {
    TreflectMetaObject const* const owner = attribute.containingMetaObject();
    return owner ? owner->name() : std::string();
}

}  // namespace

TreflectValueCheck::TreflectValueCheck(TreflectMetaAttribute const& attribute, Type type, Use use)
    : attribute_(attribute.name()),
      class_(classOf(attribute)),
      typeName_(type.name),
      typeId_(type.id),
      use_(use),
      whole_(typeIn(attribute, use == Use::kWrite || use == Use::kWriteElement)),
      told_(whole_),
      own_(type.name(), typesOf(attribute)) {
    if (!whole_.isValid())
        return;
    if (use == Use::kRead || use == Use::kWrite)
        compare("not \"" + own_.name() + '"');
    else
        compareElements();
}

void TreflectValueCheck::misused(std::string const& complaint) {
    verdict_ = Verdict::kMisuse;
    complaint_ = complaint;
}

void TreflectValueCheck::compare(std::string const& misfit) {
    if (!own_.isValid())
        return;
    bool const reads = use_ != Use::kWrite;
    switch (reads ? told_.fitInto(own_, TreflectParameterType::Enums::kOpen)
                  : own_.fitInto(told_, TreflectParameterType::Enums::kListed)) {
        case TreflectParameterType::Fit::kNever:
            misused(misfit);
            break;
        case TreflectParameterType::Fit::kInRange:
            verdict_ = Verdict::kLook;
            ranges_ = true;
            complaint_ += complaint_.empty() ? "" : ", or one ";
            complaint_ += reads ? "out of the range of \"" : "out of whose range is \"";
            complaint_ += own_.name() + '"';
            break;
        case TreflectParameterType::Fit::kAlways:
            break;
    }
}

void TreflectValueCheck::compareElements() {
    told_ = whole_.element();
    if (!told_.isValid()) {
        if (use_ == Use::kReadElement)
            misused("which has no elements");
        return;
    }
    if (use_ == Use::kWriteElement) {
        misused("of which no element can be written by itself");
        return;
    }
    verdict_ = Verdict::kLook;
    complaint_ = "which has no such element";
    compare("whose elements are not \"" + own_.name() + '"');
}

std::string TreflectValueCheck::mistake() const {
    return "attribute \"" + attribute_ + "\" of class \"" + class_ + "\" is \"" + whole_.name() +
           "\", " + complaint_;
}

void TreflectValueCheck::tell() const {
    REFLECTORB_LOG_LIMITED(limit_, 3, "REFLECT_attribute",
                           "attribute \"%s\" of class \"%s\" is \"%s\", %s", attribute_.c_str(),
                           class_.c_str(), whole_.name().c_str(), complaint_.c_str());
}

TreflectValueCheck::Found TreflectValueCheck::find(TipprmiStream& response, int index) const {
    int const size = response.getUnreadSize();
    unsigned char const* bytes =
        size > 0 ? response.getDataPtr() + (response.getDataSize() - size) : nullptr;
    auto left = static_cast<std::size_t>(size);
    std::size_t place = 0;
    if (use_ != Use::kRead) {
        std::optional<std::size_t> const found = whole_.placeOf(index, bytes, left);
        if (!found)
            return Found::kNoElement;
        place = *found;
    }
    if (place > left) {
        response.stopUnmarshalling();
        return Found::kValue;
    }
    bytes += place;
    left -= place;
    // What is no value of the table's type is left to whoever reads it.
    if (ranges_ && !told_.isWithin(own_, TreflectParameterType::Enums::kOpen, bytes, left) &&
        told_.isAtStartOf(bytes, left)) {
        tell();
        return Found::kMisfit;
    }
    response.unmarshall(nullptr, static_cast<int>(place));
    return Found::kValue;
}

bool TreflectValueCheck::admits(TipprmiAny const& value) const {
    auto const size = static_cast<std::size_t>(value.getDataSize());
    bool const incomplete = value.hasUnmarshallingFailed();  // and is not sent
    return !ranges_ || incomplete ||
           own_.isWithin(told_, TreflectParameterType::Enums::kListed, value.getDataPtr(), size);
}
