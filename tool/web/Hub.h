// What the gateway knows of the group, kept up to date by what it is told.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Objects.h"
#include "Tool.h"
#include "web/Board.h"
#include "web/Wanted.h"

/**
 * Watches the group for the listeners of a gateway, and keeps the board. Nothing asks objects again
 * and again: notices tell of objects and values. Only what processes tell of themselves, for which
 * there are no notices, is asked for every two seconds, as long as a listener wants it.
 *
 * Who does what:
 * - The main thread looks around (`tend`): it alone asks, begins watches and ends them.
 * - Observers and watches, for whom others wait, leave what they are told, and nothing else.
 * - The hub's own thread makes JSON of that, ten times a second at most.
 * - Threads of connections read the board (`Listener`), and never wait for the others.
 *
 * What is watched is what a listener wants, and at most `kMostWatched` objects of each kind. Never
 * destroyed, since others may tell as long as the process lives.
 */
class Hub {
public:
    static constexpr std::size_t kMostWatched = 5000;

    /** One that is told. A resource, of the thread of its connection. */
    class Listener {
    public:
        virtual ~Listener() = default;
        /** The next events as an event stream has them, for which it waits a moment, or a sign of
         * life after a while; empty when there is nothing yet, nothing when it is over. */
        virtual std::optional<std::string> next() = 0;
    };

    explicit Hub(Settings const& settings);
    ~Hub() = delete;
    Hub(Hub const&) = delete;
    Hub& operator=(Hub const&) = delete;

    // ---- Any thread ----

    /** Throws a Failure when there are too many. */
    std::shared_ptr<Listener> listen(Wanted const& wanted);
    Board const& board() const;
    /** The object with an id, as the board tells it; throws a Failure when it has gone. */
    Found find(std::string const& id) const;

    // ---- The main thread ----

    /** Looks at what is to be done; to be called now and then. */
    void tend();
    /** Ends all listeners. */
    void close();

private:
    class Inside;
    Inside& inside_;
};
