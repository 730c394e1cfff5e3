#pragma once

#include <cstddef>
#include <utility>

namespace Transport {

/** For closers that a descriptor's owner uses when he lets go of it. */
void closeAtOnce(int fd);
/**
 * To close what others gave us may take as long as they like: until a connection that lingers has
 * sent its last byte, say. So a thread for this does it, some time later; never blocks.
 */
void closePassed(int fd);
/**
 * Likewise for a unix socket that others can send to: with it end the descriptors that they have
 * put in and nobody has taken out. The peer sees its end at once, and so does the kernel when
 * nothing is in it.
 */
void closeSocket(int fd);
/** Whether so much waits to be closed that nothing more should be taken in. Any thread. */
bool closersBehind();

/** Owner of a file descriptor. A resource that can be moved. */
template <void (*Close)(int)>
class BasicDescriptor {
public:
    BasicDescriptor() = default;
    explicit BasicDescriptor(int number) : number_(number) {}
    BasicDescriptor(BasicDescriptor&& other) noexcept : number_(other.release()) {}
    BasicDescriptor& operator=(BasicDescriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~BasicDescriptor() { reset(); }

    bool valid() const { return number_ >= 0; }
    int get() const { return number_; }
    void reset() {
        if (number_ >= 0)
            Close(std::exchange(number_, -1));
    }
    int release() { return std::exchange(number_, -1); }

private:
    int number_ = -1;
};

/** Of this process's making, or found to be of a kind that closes at once. */
using Descriptor = BasicDescriptor<closeAtOnce>;
/** One that others gave us, of unknown kind. */
using PassedDescriptor = BasicDescriptor<closePassed>;
/** A unix socket that others can send to. */
using OpenSocket = BasicDescriptor<closeSocket>;

/** A process that talks to hundreds of others needs more descriptors than the usual soft limit
 * allows: raises that as far as the hard limit lets it. Call when one could not be had (EMFILE);
 * true when it pays to try again. */
bool raiseDescriptorLimit();
/** How many this process may have, its soft limit raised as far as that goes. */
std::size_t mostDescriptors();
/** Whether so many descriptors can be had now; raises the limit where that helps. `fd` is any of
 * this process's own. */
bool descriptorsLeft(int fd, int count);

}  // namespace Transport
