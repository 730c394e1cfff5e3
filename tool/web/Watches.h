// What is watched of an object for the listeners of a gateway.
#pragma once

#include <reflect.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Events.h"
#include "Objects.h"
#include "Watching.h"
#include "web/Inbox.h"

/** The id of an object, as listeners are told it. */
std::string idOf(Place place);

/** The values of an object's attributes. Made and destroyed under the run permission. */
class WatchedValues {
public:
    /** Throws a Failure when the object has no class that is known. */
    WatchedValues(Found const& found, Inbox& inbox);
    ~WatchedValues() { stop(); }
    WatchedValues(WatchedValues const&) = delete;
    WatchedValues& operator=(WatchedValues const&) = delete;

    /** Nothing of it gets onto the board any more. Any thread. */
    void stop() const;
    /** Why not all attributes are watched; empty when they are. */
    std::string const& missing() const { return missing_; }

private:
    bool watch(TreflectAttribute& attribute, Found const& found, std::string const& name);

    Inbox& inbox_;
    std::vector<Inbox::SourcePtr> sources_;
    std::vector<std::unique_ptr<TreflectAttributeWatch>> watches_;
    std::string missing_;
};

/** The calls of an object's operations. Made and destroyed under the run permission. */
class WatchedCalls {
public:
    /** What is watched by an earlier one stays as it is: observed once more it would be told twice.
     * Throws a Failure when the object has no class that is known. */
    WatchedCalls(Found const& found, Events& events, WatchedCalls const* earlier);
    /** What no other one has taken over is told no more, ahead of all that this has to wait for. */
    ~WatchedCalls();
    WatchedCalls(WatchedCalls const&) = delete;
    WatchedCalls& operator=(WatchedCalls const&) = delete;

    /** None of these calls is told any more, by no one that has taken over from this either. Any
     * thread. */
    void stop() const;
    /** Why not all operations are watched; empty when they are. */
    std::string const& missing() const { return missing_; }

private:
    std::map<std::string, std::shared_ptr<Watched>> watched_;  // by operations
    std::string missing_;
};
