#pragma once

#include <unistd.h>

#include <utility>

namespace Transport {

/** Owner of a file descriptor. A resource that can be moved. */
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() { reset(); }

    bool valid() const { return number_ >= 0; }
    int get() const { return number_; }
    void reset() {
        if (number_ >= 0)
            ::close(std::exchange(number_, -1));
    }
    int release() { return std::exchange(number_, -1); }

private:
    int number_ = -1;
};

/** A process that talks to hundreds of others needs more descriptors than the usual soft limit
 * allows: raises that as far as the hard limit lets it. Call when one could not be had (EMFILE);
 * true when it pays to try again. */
bool raiseDescriptorLimit();

}  // namespace Transport
