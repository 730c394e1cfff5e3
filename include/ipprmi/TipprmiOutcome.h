#pragma once

#include <type_traits>
#include <utility>
#include <variant>

#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiResult.h"

/**
 * How an exception with fields travels: in a container of type 1, behind the code that a
 * TipprmiGeneralException has there. Who knows nothing of the fields reads the code alone.
 */
template <class Exception>
struct TipprmiRaised {
    Exception exception{};  ///< what came with the refusal
};
template <class Exception>
TipprmiStream& operator<<(TipprmiStream& stream, TipprmiRaised<Exception> const& raised) {
    unsigned int const code = Exception::kCode;
    return stream << code << raised.exception;
}
template <class Exception>
TipprmiStream& operator>>(TipprmiStream& stream, TipprmiRaised<Exception>& raised) {
    unsigned int code = 0;
    return stream >> code >> raised.exception;
}

namespace tipprmi {
template <class T, class = void>
struct HasCode : std::false_type {};
template <class T>
struct HasCode<T, std::void_t<decltype(T::kCode)>>
    : std::is_convertible<decltype(T::kCode), unsigned int> {};
}  // namespace tipprmi

/**
 * What a call yields that may be refused with one of several exceptions: a result which, when the
 * call was refused so, has the fields of that exception as well. A server object's function
 * returns a value, an exception (`return TooBright{100};`) or a TipprmiFailure; its caller asks
 *
 *     TipprmiOutcome<void, TooBright> const done = lamp.setLevel(200);
 *     if (TooBright const* const refusal = done.raised<TooBright>())
 *         ... refusal->limit ...
 *
 * An exception is a type with stream operators and a default value that has its failure code as a
 * static constant `kCode`. A value; nothing is thrown.
 */
template <class T, class... Exceptions>
class TipprmiOutcome : public TipprmiResult<T> {
    static_assert((tipprmi::HasCode<Exceptions>::value && ...),
                  "an exception has its failure code as a static constant kCode");

public:
    /** What a call yields that succeeds. */
    using Value = T;
    /** Whether E is one of the exceptions. */
    template <class E>
    static constexpr bool isOneOf = (std::is_same_v<E, Exceptions> || ...);

    using TipprmiResult<T>::TipprmiResult;
    /** Converts from a value or a failure without exception. */
    TipprmiOutcome(TipprmiResult<T> result) : TipprmiResult<T>(std::move(result)) {}
    /** A refusal: converts from one of the exceptions. */
    template <class E, std::enable_if_t<isOneOf<E>, int> = 0>
    TipprmiOutcome(E exception)
        : TipprmiResult<T>(TipprmiFailure(E::kCode)), raised_(std::move(exception)) {}
    /** A call that has failed, with what its response says of that. The fields of an exception of
     * which only the code has come are not there. */
    TipprmiOutcome(TipprmiFailure failure, TipprmiExceptionContainer& container)
        : TipprmiResult<T>(failure) {
        static_cast<void>((take<Exceptions>(container) || ...));
    }

    /** The exception with which the call was refused; null when it was not this one, or its fields
     * have not come. */
    template <class E>
    E const* raised() const {
        static_assert(isOneOf<E>, "the operation does not raise this exception");
        return std::get_if<E>(&raised_);
    }

    /** Writes the refusal, if it is by an exception, as a whole response; false if it is not. */
    bool writeRaised(TipprmiStream& out) const { return (writeOne<Exceptions>(out) || ...); }

private:
    template <class E>
    bool take(TipprmiExceptionContainer& container) {
        constexpr int kCodeSize = 4;
        if (this->code() != E::kCode)
            return false;
        TipprmiRaised<E> raised;
        if (!std::is_empty_v<E> && container.getExceptionDataSize() <= kCodeSize)
            return true;
        container.getExceptionData(raised);
        if (!container.hasUnmarshallingFailed())
            raised_ = std::move(raised.exception);
        return true;
    }
    template <class E>
    bool writeOne(TipprmiStream& out) const {
        E const* const exception = raised<E>();
        if (!exception)
            return false;
        TipprmiExceptionContainer container;
        container.setExceptionType(TipprmiGeneralException::getExceptionClassType());
        container.setExceptionData(TipprmiRaised<E>{*exception});
        out << container;
        return true;
    }

    std::variant<std::monostate, Exceptions...> raised_;
};
