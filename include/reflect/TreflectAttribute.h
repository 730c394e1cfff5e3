#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "ipprmi/TipprmiCall.h"
#include "ipprmi/TipprmiResult.h"
#include "ipprmi/TipprmiSequence.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectObject.h"
#include "reflect/TreflectOperation.h"
#include "reflect/TreflectTypeName.h"
#include "reflect/TreflectValueCheck.h"

/**
 * An attribute of one object, found by name: a meta attribute bound to a handle. Handles hand it
 * out and own it. Reading and writing it are calls of its get and its set operation; they work for
 * every type that has stream operators:
 *
 *     unsigned int level = 0;
 *     if (lamp.attribute("Level").get(level) == 0) ...
 *
 * Where the class's table tells the type, a value of another one is neither written nor read:
 * TipprmiFailure::kMismatch, and a line at level 3 that tells both. The types are compared when the
 * first value of a C++ type is read or written. A number of another range is taken if it lies in
 * both. What nobody has named (see TreflectTypeName) is not compared, nor are the handles that
 * `get` reads.
 *
 * Used under the run permission, which is given up while a call waits.
 *
 * Virtual operations in slot order: destructor, operation, attribute.
 */
class REFLECTORB_API TreflectAttribute {
public:
    /** How the value is made up of elements. */
    enum TreflectAttributeType { kPlain = 0, kSequence = 1, kArray = 2 };

    /** Binds a meta attribute to a handle; neither is owned, and both must outlive it. Made by
     * meta attributes (TreflectMemberFactory); others ask a handle for its attribute. */
    TreflectAttribute(TreflectMetaAttribute const* meta, TreflectObject const* object);
    virtual ~TreflectAttribute();
    TreflectAttribute(TreflectAttribute const&) = delete;
    TreflectAttribute& operator=(TreflectAttribute const&) = delete;

    /** What every call of the null attribute answers, and of others one that failed. */
    static int error;
    /** The null objects that navigation ends at. */
    static TreflectErrorAttribute errorAttribute;
    static TreflectErrorOperation errorOperation;

    /** An operation of the object that is the attribute's value; the null operation when the
     * attribute holds no reflective object or its class has no such operation. */
    virtual TreflectOperation& operation(std::string const& name);
    /** An attribute of the object that is the attribute's value, so that paths can be followed:
     * attribute("a").attribute("b"). The null attribute as above. */
    virtual TreflectAttribute& attribute(std::string const& name);

    /** Null for the null attribute. */
    TreflectMetaAttribute const* meta() const { return meta_; }
    /** Whether it is the null attribute. */
    bool isError() const { return error_; }
    /** Number of elements; 0 for the null attribute. */
    int constLength() const;
    /** How the value is made up, as far as setContainerType has said. */
    TreflectAttributeType containerType() const { return containerType_; }
    /** Says how the value is made up. What a handle's `attribute` finds by name is kPlain: an
     * element that is selected is one of what the class's table tells. Where the table tells no
     * type, the whole is read even then, until this function says how the value is made up. */
    void setContainerType(TreflectAttributeType type);
    /** Has element `i` of an array or a sequence read from now on; answers the attribute itself. */
    TreflectAttribute& operator[](int i);
    /** Has the whole value read again. */
    void clearIndex();

    /** The operations that read and write the value, bound to the same handle: for observing them.
     * The null operation when there is none. */
    TreflectOperation& operGet();
    TreflectOperation& operSet();

    /**
     * Reads the value: 0, or `error` for the null attribute. Where setContainerType said that there
     * are elements, one outside the array or the sequence leaves `value` as it is, and is no error;
     * elsewhere an element that is not there is a mismatch. A call that failed, or a mismatch,
     * leaves a handle unconnected and answers 0 (ask it whether it is connected); a value of any
     * other type it leaves as it is and answers `error`. A text that is read as char* is the
     * caller's, who deletes it with delete[]; what `value` led to before is not deleted.
     */
    template <class T>
    int get(T& value) const;
    /** The same, with the code of the failure; a default value for an element that is not there and
     * is no error. */
    template <class T>
    TipprmiResult<T> fetch() const;
    /** Writes the whole value: 0, or `error` for the null attribute, one that is read-only, one of
     * which an element is selected, and when the object has refused the value or is not there. */
    template <class T>
    int set(T const& value) const {
        return store(value) ? 0 : error;
    }
    /** The same, with the code of the failure. */
    template <class T>
    TipprmiResult<void> store(T const& value) const;
    /** When the last reading or writing failed with TipprmiFailure::kMismatch: what the class tells
     * of the attribute's type, and what does not go with it, in words. */
    std::string mistake() const;

    /**
     * For an attribute whose value is a reflective object: fetches the object on which `attribute`
     * and `operation` work, the first time and, when an element is selected, every time. True when
     * there is one, that is, when the class of the value is known and neither it nor the attribute
     * has been destroyed while the call waited.
     */
    bool updateContainedObject();

protected:
    /** For the null attribute. */
    void markAsError() { error_ = true; }

private:
    friend class TreflectAttributeWatch;

    using Check = TreflectValueCheck;
    /** What of the value is to be read: taken before a call, since the attribute and its class may
     * be destroyed while the call waits. */
    struct Selection {
        TreflectAttributeType containerType;
        int index;  // kNoIndex for the whole value
        int length;
        std::shared_ptr<Check const> check;  // null when there is nothing to be looked at

        bool isMisuse() const { return check && check->isMisuse(); }
        /** An array has as many elements as its class says, however many come. */
        bool isOutsideArray() const {
            return containerType == kArray && index != kNoIndex && (index < 0 || index >= length);
        }
    };

    bool hasIndex_() const { return index_ != kNoIndex; }
    Check::Use readingUse_() const {
        if (!hasIndex_())
            return Check::Use::kRead;
        return containerType_ == kPlain ? Check::Use::kReadElement : Check::Use::kReadMarkedElement;
    }
    Check::Use writingUse_() const {
        return hasIndex_() && containerType_ == kPlain ? Check::Use::kWriteElement
                                                       : Check::Use::kWrite;
    }
    /** Null when there is nothing to be looked at. `known` is reading_ or writing_. */
    std::shared_ptr<Check const> check_(std::shared_ptr<Check const>& known, Check::Type type,
                                        Check::Use use) const;
    Selection selection_(Check::Type type) const {
        return {containerType_, index_, constLength(), check_(reading_, type, readingUse_())};
    }
    /** Calls the get operation; whether the call went well. `response` is then about to yield the
     * value, unless nothing came back but a general exception: every read of it fails then. */
    bool callGet_(TipprmiStream& response) const;
    /** Calls the set operation, if there is one that takes the value as a whole. */
    TipprmiResult<void> callSet_(InParamHook const& value) const;
    /** Why the call that was answered by `response` failed. */
    static TipprmiFailure failureOf_(TipprmiStream const& response);
    /** Reads what is selected; an element that is not there leaves the value as it is. */
    template <class T>
    static TipprmiResult<void> decode_(Selection const& selected, TipprmiStream& response,
                                       T& value);
    /** The same where the table tells nothing. */
    template <class T>
    static void decodeUnchecked_(Selection const& selected, TipprmiStream& response, T& value);
    template <class T>
    static void decodeSequence_(int index, TipprmiStream& response, T& value);
    template <class T>
    static void decodeArray_(Selection const& selected, TipprmiStream& response, T& value);

    static constexpr int kNoIndex = -1;

    TreflectMetaAttribute const* const meta_;
    TreflectObject const* const object_;
    bool error_ = false;  // set by the null attribute's constructor only
    // All guarded by the run permission.
    // The handle is shared with the updates that wait. What leads to it is the attribute's own: it
    // tells them whether the attribute has gone.
    std::shared_ptr<std::shared_ptr<TreflectObject>> containedObject_;
    TreflectOperation* operGet_ = nullptr;  // tied to object_, as the next
    TreflectOperation* operSet_ = nullptr;
    TreflectAttributeType containerType_ = kPlain;
    int index_ = kNoIndex;
    // Of the C++ types that were read and written last; null before.
    mutable std::shared_ptr<Check const> reading_;
    mutable std::shared_ptr<Check const> writing_;
    mutable std::shared_ptr<Check const> const* lastCheck_ = nullptr;  // one of them
};

/** The null attribute: reading it answers `error`, and all that it leads to is null as well. */
class REFLECTORB_API TreflectErrorAttribute : public TreflectAttribute {
public:
    /** There is one for the process, TreflectAttribute::errorAttribute, with neither meta
     * attribute nor handle. */
    TreflectErrorAttribute(TreflectMetaAttribute const* meta, TreflectObject const* object);
    ~TreflectErrorAttribute() override;

    TreflectOperation& operation(std::string const& name) override;
    TreflectAttribute& attribute(std::string const& name) override;
};

template <class T>
int TreflectAttribute::get(T& value) const {
    constexpr bool isHandle = std::is_base_of_v<TreflectObject, T>;
    if (error_)
        return error;
    Selection const selected = selection_(Check::Type::of<T>());
    if (!isHandle && selected.isMisuse()) {
        selected.check->tell();
        return error;
    }
    TipprmiStream response = TipprmiStream::withoutBuffer_();
    bool const succeeded = callGet_(response);
    if constexpr (isHandle) {
        if (!decode_(selected, response, value)) {
            response.stopUnmarshalling();
            response >> value;
        }
        return 0;
    } else {
        if (!succeeded)
            return error;
        T decoded = value;
        if (!decode_(selected, response, decoded) || response.hasUnmarshallingFailed())
            return error;
        value = std::move(decoded);
        return 0;
    }
}

template <class T>
TipprmiResult<T> TreflectAttribute::fetch() const {
    if (error_)
        return TipprmiFailure();
    Selection const selected = selection_(Check::Type::of<T>());
    if (selected.isMisuse()) {
        selected.check->tell();
        return TipprmiFailure(TipprmiFailure::kMismatch);
    }
    TipprmiStream response = TipprmiStream::withoutBuffer_();
    if (!callGet_(response))
        return failureOf_(response);
    T value = tipprmiBlank<T>();
    TipprmiResult<void> const decoded = decode_(selected, response, value);
    if (!decoded)
        return TipprmiFailure(decoded.code());
    if (response.hasUnmarshallingFailed())
        return failureOf_(response);
    return value;
}

template <class T>
TipprmiResult<void> TreflectAttribute::store(T const& value) const {
    if (error_)
        return TipprmiFailure();
    if (auto const check = check_(writing_, Check::Type::of<T>(), writingUse_())) {
        if (check->isMisuse() || !check->admits(TipprmiAny().insert(value))) {
            check->tell();
            return TipprmiFailure(TipprmiFailure::kMismatch);
        }
    }
    return callSet_(TipprmiArguments<T>(value));
}

template <class T>
TipprmiResult<void> TreflectAttribute::decode_(Selection const& selected, TipprmiStream& response,
                                               T& value) {
    if (selected.isOutsideArray())
        return {};
    if (!selected.check || selected.isMisuse()) {
        decodeUnchecked_(selected, response, value);
        return {};
    }
    Check::Found const found = selected.check->find(response, selected.index);
    if (found == Check::Found::kValue)
        response >> value;
    bool const isAbsent = found == Check::Found::kNoElement && selected.containerType != kPlain;
    if (found != Check::Found::kValue && !isAbsent)
        return TipprmiFailure(TipprmiFailure::kMismatch);
    return {};
}

template <class T>
void TreflectAttribute::decodeUnchecked_(Selection const& selected, TipprmiStream& response,
                                         T& value) {
    bool const hasIndex = selected.index != kNoIndex;
    if (hasIndex && selected.containerType == kSequence)
        decodeSequence_(selected.index, response, value);
    else if (hasIndex && selected.containerType == kArray)
        decodeArray_(selected, response, value);
    else
        response >> value;
}

template <class T>
void TreflectAttribute::decodeSequence_(int index, TipprmiStream& response, T& value) {
    // Sequences of bool do not exist; a bool travels as a number.
    TipprmiSequence<std::conditional_t<std::is_same_v<T, bool>, int, T>, 0u> elements;
    response >> elements;
    auto const at = static_cast<unsigned int>(index);
    if (index < 0 || at >= elements.getLength())
        return;
    if constexpr (std::is_same_v<T, bool>)
        value = elements[at] != 0;
    else
        value = elements[at];
}

template <class T>
void TreflectAttribute::decodeArray_(Selection const& selected, TipprmiStream& response, T& value) {
    for (int i = 0; i < selected.index; ++i) {
        T skipped = tipprmiBlank<T>();
        response >> skipped;
    }
    response >> value;
}

/** Reads a text, which becomes the caller's: see TreflectAttribute::get. */
template <>
REFLECTORB_API int TreflectAttribute::get(char*& value) const;
/** The same with the code of the failure. */
template <>
REFLECTORB_API TipprmiResult<char*> TreflectAttribute::fetch() const;

extern template REFLECTORB_API int TreflectAttribute::get(TreflectObject& value) const;
