#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace bench {

/** The client half of what is measured, bound to a server in another process. */
class Client {
public:
    /** Ways to fetch a text of 32 bytes: a call of the operation that answers it, a read of the
     * attribute that has been found by name before, and one that asks for the name each time. */
    enum class Fetch { kCall, kBound, kByName };

    virtual ~Client() = default;

    /** Before the first and after the last call of a thread. */
    virtual void enterThread() {}
    virtual void leaveThread() {}

    /** A call with a number and a 32-byte text both ways; false when it failed. */
    virtual bool call() = 0;
    /** A call with `bytes` both ways. */
    virtual bool callBody(std::size_t bytes) = 0;
    /** A call without answer. */
    virtual bool sendOneWay() = 0;
    /** How many one-way calls the server has served so far. */
    virtual std::uint32_t servedOneWays() = 0;
    /** False when it failed; only the broker has attributes. */
    virtual bool fetch(Fetch) { return false; }
};

/** Something to measure: the broker or one of the floors that it is held against. */
class Subject {
public:
    virtual ~Subject() = default;
    /** Serves in this process until standard input ends; prints "ready" when it can be called. */
    virtual void serve(std::string const& folder) = 0;
    /** Connects to the server; null, with a message on standard error, when that fails. */
    virtual std::unique_ptr<Client> connect(std::string const& folder) = 0;
};

std::unique_ptr<Subject> makeOrb();
/** The same with objects that all machines see. */
std::unique_ptr<Subject> makeOrbOfNode();
/** The thread path of a call over a seqpacket socket, every wait sleeping. */
std::unique_ptr<Subject> makeSleepingFloor();
/** The same path over shared-memory rings, every wait polling for a bounded time first. */
std::unique_ptr<Subject> makePollingFloor();
/** The polling floor with one first-come-first-served token per process, given up while waiting. */
std::unique_ptr<Subject> makePermissionFloor();
/** The shortest path there is over shared-memory rings, every wait sleeping on a futex: a waiting
 * caller reads its own answer, and the thread that receives a request serves it. */
std::unique_ptr<Subject> makeShortFloor();
/** omniORB over Unix sockets; in the program for comparisons only. */
std::unique_ptr<Subject> makeOmniOrb();

}  // namespace bench
