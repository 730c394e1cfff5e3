#pragma once

#include <atomic>
#include <string>
#include <utility>

#include "ipprmi/TipprmiBlank.h"
#include "oswrap/Export.h"
#include "reflect/NamespaceId.h"

class TipprmiStream;

/** Base of reference-counted values. Deletes itself when its last reference goes. The count is
 * atomic, so that holders in several threads may come and go. */
class REFLECTORB_API TipprmiRCObject {
public:
    TipprmiRCObject() = default;
    TipprmiRCObject(TipprmiRCObject const&) {}
    TipprmiRCObject& operator=(TipprmiRCObject const&) { return *this; }
    virtual ~TipprmiRCObject();

    void addReference() { references_.fetch_add(1, std::memory_order_relaxed); }
    void removeReference() {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
    /** Whether several pointers may share this value; else each takes a copy of its own. */
    bool isShareable() const { return shareable_; }
    int references() const { return references_.load(std::memory_order_relaxed); }

protected:
    /** For a derived class whose values must not be shared. A copy is shareable again. */
    void setShareable(bool shareable) { shareable_ = shareable; }

private:
    std::atomic<int> references_{0};
    bool shareable_ = true;
};

/** Counted pointer to a TipprmiRCObject; may be null. */
template <class T>
class TipprmiRCPtr {
public:
    TipprmiRCPtr(T* value = nullptr) : value_(value) { init(); }
    TipprmiRCPtr(TipprmiRCPtr const& other) : value_(other.value_) { init(); }
    TipprmiRCPtr(TipprmiRCPtr&& other) noexcept : value_(std::exchange(other.value_, nullptr)) {}
    TipprmiRCPtr& operator=(TipprmiRCPtr const& other) {
        if (value_ != other.value_) {
            T* const old = value_;
            value_ = other.value_;
            init();
            if (old)
                old->removeReference();
        }
        return *this;
    }
    TipprmiRCPtr& operator=(TipprmiRCPtr&& other) noexcept {
        std::swap(value_, other.value_);
        return *this;
    }
    ~TipprmiRCPtr() {
        if (value_)
            value_->removeReference();
    }

    T& operator*() const { return *value_; }
    T* operator->() const { return value_; }
    T* get() const { return value_; }

private:
    void init() {
        if (!value_)
            return;
        if (!value_->isShareable())
            value_ = new T(*value_);
        value_->addReference();
    }

    T* value_;
};

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
        StringValue(StringValue const& other);
        StringValue& operator=(StringValue const&) = delete;
        ~StringValue() override;
        /** A value that takes over `text`, which is not empty and was made with new[]. */
        static StringValue* adopt(char* text);
        char const* text() const { return text_; }

    private:
        char* text_ = nullptr;  // owned, may be null
    };

    TipprmiOID(char const* id, NamespaceId ns);
    TipprmiOID(std::string const& id, NamespaceId ns);

    /** Gives another id text; null takes it away. The namespace stays. */
    void setIdString(char const* id) { init(id); }
    void init(char const* id);
    /** The text, or null when there is none. Valid as long as this identifier keeps it. */
    char const* getIdString() const { return value_.get() ? value_->text() : nullptr; }
    NamespaceId getNamespaceId() const { return namespaceId_; }

    /** Same namespace and same text; one without text equals only another without. */
    bool isEqual(TipprmiOID const& other) const;
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
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, TipprmiOID const& value);
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, TipprmiOID& value);
