#pragma once

#include "ipprmi/TipprmiAny.h"

/** The exception of the broker itself: a code. Wire form: the code as unsigned int. */
class TipprmiGeneralException {
public:
    /** `code`: see TipprmiFailure for those that the library itself answers. */
    explicit TipprmiGeneralException(unsigned int code = 0) : code_(code) {}
    /** The type under which containers carry it. */
    static constexpr unsigned int getExceptionClassType() { return 1; }
    /** Why the call failed: one of TipprmiFailure, or the application's. */
    unsigned int code() const { return code_; }
    void code(unsigned int value) { code_ = value; }

private:
    unsigned int code_;
};

/**
 * Stands at the head of every response: type 0 says that the call succeeded, type 1 that it failed
 * with a TipprmiGeneralException in the data. One of type 0 costs no allocation.
 *
 * Wire form: the type as unsigned int, the data as TipprmiAny.
 */
class REFLECTORB_API TipprmiExceptionContainer {
public:
    /** What the container holds: 0 nothing, 1 a TipprmiGeneralException; others are the
     * application's. */
    unsigned int getExceptionType() const { return type_; }
    /** Changes the type alone: set the data as well. */
    void setExceptionType(unsigned int type) { type_ = type; }
    /** The data that go with the type, as one value: written, or read as often as wanted. */
    template <class T>
    void setExceptionData(T const& value) {
        data_.insert(value);
    }
    template <class T>
    void getExceptionData(T& value) {
        data_.extract(value);
    }
    /** Bytes of the data. */
    int getExceptionDataSize() const { return data_.getDataSize(); }
    /** Whether the data were not those of the type that was last asked for. */
    bool hasUnmarshallingFailed() const { return data_.hasUnmarshallingFailed(); }

    friend REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream,
                                                    TipprmiExceptionContainer const& value);
    friend REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream,
                                                    TipprmiExceptionContainer& value);

private:
    unsigned int type_ = 0;
    TipprmiAny data_;
};

REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream,
                                         TipprmiGeneralException const& value);
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, TipprmiGeneralException& value);

// Instances that the library itself provides.
extern template REFLECTORB_API TipprmiAny& TipprmiAny::insert(TipprmiGeneralException const& value);
extern template REFLECTORB_API TipprmiAny& TipprmiAny::extract(TipprmiGeneralException& value);
extern template REFLECTORB_API void TipprmiExceptionContainer::setExceptionData(
    TipprmiGeneralException const& value);
extern template REFLECTORB_API void TipprmiExceptionContainer::getExceptionData(
    TipprmiGeneralException& value);

/** Writes a container of type 1 with a TipprmiGeneralException of `code`. */
REFLECTORB_API void writeGeneralException(TipprmiStream& stream, unsigned int code);
