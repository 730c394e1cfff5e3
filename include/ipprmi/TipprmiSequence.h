#pragma once

#include <vector>

#include "ipprmi/TipprmiStream.h"

/**
 * A sequence of any length. An index out of range yields element 0; an empty sequence must not be
 * indexed. `Bound` is part of the type's name and is not enforced.
 *
 * Wire form: unsigned int count, then the elements in order, each in its own encoding.
 */
template <class T, unsigned int Bound = 0u>
class TipprmiSequence {
public:
    unsigned int getLength() const { return static_cast<unsigned int>(elements_.size()); }
    /** New elements are default-constructed. */
    void setLength(unsigned int length) { elements_.resize(length); }
    T& operator[](unsigned int index) { return elements_[index < elements_.size() ? index : 0]; }
    T const& operator[](unsigned int index) const {
        return elements_[index < elements_.size() ? index : 0];
    }
    void push_back(T const& value) { elements_.push_back(value); }

private:
    std::vector<T> elements_;
};
