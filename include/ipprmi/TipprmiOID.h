#pragma once

#include <string>

#include "ipprmi/TipprmiBlank.h"
#include "ipprmi/TipprmiRCObject.h"
#include "oswrap/Export.h"
#include "reflect/NamespaceId.h"

class TipprmiStream;

/**
 * Names an object: an id text and a namespace. A value; copies share the text. An empty text is no
 * text. Identifiers order by namespace (signed), then by text; one without text is neither less nor
 * greater than any of its namespace.
 *
 * Wire form: the text as a string (length 0 without a text), the namespace as unsigned int; reading
 * consumes the namespace and keeps that of the target.
 */
class REFLECTORB_API TipprmiOID {
public:
    /** The shared text. */
    class REFLECTORB_API StringValue : public TipprmiRCObject {
    public:
        /** Copies `text`; a null or empty one is kept as null. */
        explicit StringValue(char const* text);
        /** A copy of the text with references of its own. */
        StringValue(StringValue const& other);
        StringValue& operator=(StringValue const&) = delete;
        ~StringValue() override;
        /** A value that takes over `text`, which is not empty and was made with new[]. */
        static StringValue* adopt(char* text);
        /** The text, owned by this; may be null. */
        char const* text() const { return text_; }

    private:
        char* text_ = nullptr;  // owned, may be null
    };

    /** An identifier with the text `id`, which is copied; null: without a text. */
    TipprmiOID(char const* id, NamespaceId ns);
    /** The same; the text ends at its first NUL. */
    TipprmiOID(std::string const& id, NamespaceId ns);

    /** Gives another id text; null takes it away. The namespace stays. */
    void setIdString(char const* id) { init(id); }
    void init(char const* id);
    /** The text, or null when there is none. Valid as long as this identifier keeps it. */
    char const* getIdString() const { return value_.get() ? value_->text() : nullptr; }
    /** Where the object is looked for; unchanged for life, but for assignments. */
    NamespaceId getNamespaceId() const { return namespaceId_; }

    /** Same namespace and same text; one without text equals only another without. */
    bool isEqual(TipprmiOID const& other) const;
    /** By namespace, then by text; within a namespace one without text is neither less nor greater.
     */
    bool operator<(TipprmiOID const& other) const;
    /** This text followed by `suffix`, always in NSID_UNIT, where the parts of an object are named;
     * without a text a copy of this one. */
    TipprmiOID operator+(char const* suffix) const;
    TipprmiOID operator+(std::string const& suffix) const;

private:
    friend REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, TipprmiOID& value);

    TipprmiRCPtr<StringValue> value_;
    NamespaceId namespaceId_;
};

/** See TipprmiOID::isEqual. */
REFLECTORB_API bool operator==(TipprmiOID const& a, TipprmiOID const& b);
inline bool operator!=(TipprmiOID const& a, TipprmiOID const& b) {
    return !(a == b);
}
/** Without text, of the unit: an identifier that is read as argument, result, attribute or element
 * is of NSID_UNIT, since reading keeps the target's namespace. */
template <>
inline TipprmiOID tipprmiBlank<TipprmiOID>() {
    return TipprmiOID(static_cast<char const*>(nullptr), NSID_UNIT);
}
/** The wire form that is told at TipprmiOID. */
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, TipprmiOID const& value);
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, TipprmiOID& value);
