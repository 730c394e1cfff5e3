#pragma once

#include <sys/types.h>

#include <cstddef>
#include <utility>

namespace Transport {

/** For closers that a descriptor's owner uses when he lets go of it. */
void closeAtOnce(int fd);
/**
 * To close what others gave us may take as long as they like: until a connection that lingers has
 * sent its last byte, say. So a thread for this does it, some time later; never blocks. What waits
 * is counted by process: `from` is the one that gave it.
 */
void closePassed(int fd, pid_t from);
/**
 * Likewise for a unix socket that others can send to: with it end the descriptors that they have
 * put in and nobody has taken out. The peer sees its end at once, and so does the kernel when
 * nothing is in it.
 */
void closeSocket(int fd);
/** Whether so much waits to be closed that nothing more should be taken in from anybody. Any
 * thread. */
bool closersBehind();
/** Whether so much of one process waits that nothing more should be taken in from it: one may have
 * as much as is still free for all, so by itself half of what there is. Any thread. */
bool closersBehind(pid_t from);

/** Whether it lies in a file system that can be mounted: those without have no path. Asks only the
 * kernel, which does not ask the file system. */
bool isPassedFile(int fd);

/** Room among the files that wait to be closed, for those of one process that are about to come. A
 * resource of its thread, whose others may be nested. */
class ExpectedFiles {
public:
    /** For so many at most. */
    ExpectedFiles(pid_t from, std::size_t most);
    ~ExpectedFiles();
    ExpectedFiles(ExpectedFiles const&) = delete;
    ExpectedFiles& operator=(ExpectedFiles const&) = delete;

    /** For how many there is room; 0 when the process has too many already. */
    std::size_t count() const { return count_; }
    /** No more have come. */
    void shrinkTo(std::size_t count);

private:
    std::size_t account_ = 0;  // of the process, while there is room
    std::size_t count_;
};

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
/** A unix socket that others can send to. */
using OpenSocket = BasicDescriptor<closeSocket>;

/** One that another process gave us, of unknown kind. A resource that can be moved. */
class PassedDescriptor {
public:
    PassedDescriptor() = default;
    PassedDescriptor(int number, pid_t from) : number_(number), from_(from) {}
    PassedDescriptor(PassedDescriptor&& other) noexcept
        : number_(other.release()), from_(other.from_) {}
    PassedDescriptor& operator=(PassedDescriptor&& other) noexcept {
        std::swap(number_, other.number_);
        std::swap(from_, other.from_);
        return *this;
    }
    ~PassedDescriptor() {
        if (number_ >= 0)
            closePassed(number_, from_);
    }

    bool valid() const { return number_ >= 0; }
    int get() const { return number_; }
    int release() { return std::exchange(number_, -1); }

private:
    int number_ = -1;
    pid_t from_ = 0;
};

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
