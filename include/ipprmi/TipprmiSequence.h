#pragma once

#include <algorithm>
#include <type_traits>
#include <utility>
#include <vector>

#include "ipprmi/TipprmiAny.h"
#include "ipprmi/TipprmiBlank.h"
#include "ipprmi/TipprmiStream.h"

/**
 * A sequence of any length. An index out of range yields element 0; an empty sequence must not be
 * indexed. `Bound` is part of the type's name and is not enforced.
 *
 * Wire form: unsigned int count, then the elements in order, each in its own encoding. To send
 * sequences of a type of one's own, that type needs operator<< and operator>> for TipprmiStream and
 * a default constructor (TipprmiOID does without). An element's encoding has four bytes or more
 * (see TipprmiStream::readCount).
 */
template <class T, unsigned int Bound = 0u>
class TipprmiSequence {
    static_assert(!std::is_same_v<T, bool>, "elements are handed out by reference");

public:
    /** Number of elements. */
    unsigned int getLength() const { return static_cast<unsigned int>(elements_.size()); }
    /** New elements are default-constructed. */
    void setLength(unsigned int length) {
        if constexpr (std::is_default_constructible_v<T>)
            elements_.resize(length);
        else
            elements_.resize(length, tipprmiBlank<T>());
    }
    /** The element, or the first one when there are not so many. Not of an empty sequence. */
    T& operator[](unsigned int index) { return elements_[index < elements_.size() ? index : 0]; }
    T const& operator[](unsigned int index) const {
        return elements_[index < elements_.size() ? index : 0];
    }
    /** Makes room for so many elements, none of which then moves when others are added. */
    void reserve(std::size_t count) { elements_.reserve(count); }
    /** Appends a copy. */
    void push_back(T const& value) { elements_.push_back(value); }

    /** The elements as a range, until the length changes. */
    T* begin() { return elements_.data(); }
    T* end() { return elements_.data() + elements_.size(); }
    T const* begin() const { return elements_.data(); }
    T const* end() const { return elements_.data() + elements_.size(); }

private:
    std::vector<T> elements_;
};

namespace tipprmi {
/** Numbers that go at once. Narrow ones go one by one, by operators that a program may have. */
template <class T>
inline constexpr bool isBulky = isNumber<T> && sizeof(T) >= 4;
}  // namespace tipprmi

template <class T, unsigned int Bound>
TipprmiStream& operator<<(TipprmiStream& stream, TipprmiSequence<T, Bound> const& sequence) {
    unsigned int const count = sequence.getLength();
    stream << count;
    if constexpr (tipprmi::isBulky<T>) {
        tipprmi::writeElements<T>(stream, sequence.begin(), count);
    } else {
        TipprmiStream::Level const level(stream, TipprmiStream::Level::kWriting);
        for (unsigned int i = 0; level.isAllowed() && i < count; ++i)
            stream << sequence[i];
    }
    return stream;
}

/** Elements are new ones, so that nothing of the sequence's former content shines through, and are
 * read in place: the copy of a handle might look for its object once more. Numbers go at once. Of
 * others there are no more than have arrived; what is missing of a few is blank. */
template <class T, unsigned int Bound>
TipprmiStream& operator>>(TipprmiStream& stream, TipprmiSequence<T, Bound>& sequence) {
    unsigned int const count = stream.readCount();
    sequence.setLength(0);
    if constexpr (tipprmi::isBulky<T>) {
        auto const unread = static_cast<unsigned int>(stream.getUnreadSize());
        if (count <= unread / tipprmi::kNumberSize<T>) {
            sequence.setLength(count);
            tipprmi::readNumbers<T>(stream, sequence.begin(), count);
            return stream;
        }
    }
    TipprmiStream::Level const level(stream, TipprmiStream::Level::kReading);
    if (!level.isAllowed())
        return stream;
    sequence.reserve(tipprmi::roomAhead<T>(stream, count));
    for (unsigned int i = 0; i < count && !stream.hasUnmarshallingFailed(); ++i) {
        sequence.setLength(i + 1);
        stream >> sequence[i];
    }
    if (sequence.getLength() < std::min(count, TipprmiStream::kAcceptedCount))
        sequence.setLength(std::min(count, TipprmiStream::kAcceptedCount));
    return stream;
}

// Instances that the library itself provides.
extern template class REFLECTORB_API TipprmiSequence<unsigned int, 0u>;
extern template class REFLECTORB_API TipprmiSequence<TipprmiAny, 0u>;
extern template REFLECTORB_API TipprmiStream& operator<<(
    TipprmiStream& stream, TipprmiSequence<unsigned int, 0u> const& sequence);
extern template REFLECTORB_API TipprmiStream& operator>>(
    TipprmiStream& stream, TipprmiSequence<unsigned int, 0u>& sequence);
extern template REFLECTORB_API TipprmiStream& operator<<(
    TipprmiStream& stream, TipprmiSequence<TipprmiAny, 0u> const& sequence);
extern template REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream,
                                                         TipprmiSequence<TipprmiAny, 0u>& sequence);
