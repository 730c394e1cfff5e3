// Subcommands that go on until they are told to end.
#pragma once

#include <functional>
#include <memory>

#include "Events.h"
#include "Failure.h"
#include "Output.h"
#include "Settings.h"
#include "Tool.h"

/** What such a subcommand has in the group: its observers, above all. */
class Session {
public:
    virtual ~Session() = default;
    /** Called now and then by the main thread, without the run permission; false ends. */
    virtual bool goOn() { return true; }
    /** Called by the main thread when it is over, before the group is left and all is written. */
    virtual void end() {}
    /** How it has ended; asked behind end(). */
    virtual ExitCode outcome() const { return ExitCode::kDone; }
};

/**
 * Has a session until SIGINT, SIGTERM or SIGHUP comes, until `count` events that count have been
 * written (0: any number), or until the session says so. Writes what it adds to the events.
 *
 * Ctrl-Z ends the session and leaves the group before the program stops, since others would wait
 * for its observers; when it goes on, a new session begins. Who reads slowly holds up nobody.
 *
 * `begin` makes a session; it may throw a Failure.
 */
ExitCode stayInGroup(Settings const& settings, Output& output, unsigned int count,
                     std::function<std::unique_ptr<Session>(Tool&, Events&)> const& begin);
