#pragma once

/** Number of heap allocations of this process so far, by whatever way; under sanitizers, which have
 * an allocator of their own, only those by operator new, and only in programs that starve. Any
 * thread. */
unsigned long allocationCount();

/**
 * Memory that runs out: has the nth allocation from now on fail, and then, as often as `more` says,
 * the next ones, whichever thread makes them, but for those that are sated.
 */
void starve(unsigned long nth, unsigned long more = 0);
/** Ends that; whether the nth allocation was reached. */
bool feed();

/** For a scope, what the calling thread allocates is there (or is not, inside a wider scope). */
class Sated {
public:
    explicit Sated(bool sated = true);
    ~Sated();
    Sated(Sated const&) = delete;
    Sated& operator=(Sated const&) = delete;

private:
    bool const before_;
};
