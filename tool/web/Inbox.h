// Values that watches are told, until JSON is made of them.
#pragma once

#include <reflect.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Values.h"

/**
 * Watches, for whom others wait, leave values here: of each attribute the last one is kept until it
 * is taken. Any thread.
 */
class Inbox {
public:
    /** An attribute that is watched. */
    struct Source {
        std::string key;     // of the value on the board
        std::string object;  // its name
        std::string begin;   // of the value's JSON
        Types types;

        // Guarded by the inbox's mutex.
        std::optional<TipprmiAny> latest = {};
        bool isOver = false;
    };
    using SourcePtr = std::shared_ptr<Source>;
    using News = std::vector<std::pair<SourcePtr, TipprmiAny>>;

    Inbox();
    ~Inbox() = delete;  // watches use it to the end of the process
    Inbox(Inbox const&) = delete;
    Inbox& operator=(Inbox const&) = delete;

    void leave(SourcePtr const& source, TipprmiAny const& value);
    /** Readable while there is something. */
    int descriptor() const { return descriptor_; }
    News take();
    /** Does it unless nobody watches the source any more. */
    void ifWatched(Source const& source, std::function<void()> const& act);
    /** When this returns nothing is done with the source any more. */
    void end(Source& source);

private:
    int const descriptor_;
    std::mutex mutex_;                // the board's is taken under it
    std::vector<SourcePtr> changed_;  // guarded by mutex_
};
