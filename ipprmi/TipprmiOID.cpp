#include "ipprmi/TipprmiOID.h"

#include <cstring>
#include <memory>

#include "ipprmi/TipprmiStream.h"

namespace {

char* copyOf(char const* text) {
    if (!text || !*text)
        return nullptr;
    std::size_t const bytes = std::strlen(text) + 1;
    return static_cast<char*>(std::memcpy(new char[bytes], text, bytes));
}

}  // namespace

TipprmiRCObject::~TipprmiRCObject() = default;

TipprmiOID::StringValue::StringValue(char const* text) : text_(copyOf(text)) {}

TipprmiOID::StringValue::StringValue(StringValue const& other)
    : TipprmiRCObject(other), text_(copyOf(other.text_)) {}

TipprmiOID::StringValue::~StringValue() {
    delete[] text_;
}

TipprmiOID::StringValue* TipprmiOID::StringValue::adopt(char* text) {
    std::unique_ptr<char[]> owned(text);
    auto* const value = new StringValue(nullptr);
    value->text_ = owned.release();
    return value;
}

TipprmiOID::TipprmiOID(char const* id, NamespaceId ns) : namespaceId_(ns) {
    init(id);
}

TipprmiOID::TipprmiOID(std::string const& id, NamespaceId ns) : TipprmiOID(id.c_str(), ns) {}

void TipprmiOID::init(char const* id) {
    value_ = TipprmiRCPtr<StringValue>(id ? new StringValue(id) : nullptr);
}

bool TipprmiOID::isEqual(TipprmiOID const& other) const {
    if (namespaceId_ != other.namespaceId_)
        return false;
    char const* const mine = getIdString();
    char const* const theirs = other.getIdString();
    return mine == theirs || (mine && theirs && std::strcmp(mine, theirs) == 0);
}

bool TipprmiOID::operator<(TipprmiOID const& other) const {
    if (namespaceId_ != other.namespaceId_)
        return static_cast<int>(namespaceId_) < static_cast<int>(other.namespaceId_);
    char const* const mine = getIdString();
    char const* const theirs = other.getIdString();
    return mine && theirs && mine != theirs && std::strcmp(mine, theirs) < 0;
}

TipprmiOID TipprmiOID::operator+(char const* suffix) const {
    char const* const id = getIdString();
    if (!id)
        return *this;
    return {std::string(id).append(suffix ? suffix : ""), NSID_UNIT};
}

TipprmiOID TipprmiOID::operator+(std::string const& suffix) const {
    return *this + suffix.c_str();
}

bool operator==(TipprmiOID const& a, TipprmiOID const& b) {
    return a.isEqual(b);
}

TipprmiStream& operator<<(TipprmiStream& stream, TipprmiOID const& value) {
    return stream << value.getIdString() << value.getNamespaceId();
}

TipprmiStream& operator>>(TipprmiStream& stream, TipprmiOID& value) {
    char* text = nullptr;
    stream >> text;
    if (*text) {
        value.value_ = TipprmiRCPtr<TipprmiOID::StringValue>(TipprmiOID::StringValue::adopt(text));
    } else {
        delete[] text;
        value.init(nullptr);
    }
    NamespaceId consumed = value.getNamespaceId();
    return stream >> consumed;
}
