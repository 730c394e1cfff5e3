// What is there and what happens, for any number of listeners at their own pace.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

/**
 * Keeps the present state as pieces of JSON, each with the version in which it became what it is.
 * A listener knows a version, and takes what is newer: of a value that has changed ten times
 * meanwhile the last one. So a slow listener costs nothing and misses no end; what has gone is
 * remembered for a while only, and a listener that is too late for that is told all afresh. Of
 * events, which have no present, the last thousand are kept, and counted what a listener has
 * missed.
 *
 * Any thread. Nothing else is done under its mutex, which is a leaf: what a listener wants of the
 * news is looked at by its own thread.
 */
class Board {
public:
    using Version = std::uint64_t;
    enum class Kind { kObject, kValue, kProcess, kView };
    static constexpr std::size_t kMostGone = 10000;
    static constexpr std::size_t kMostEvents = 1000;

    /** What a listener wants to hear of besides objects. */
    struct Wish {
        std::function<bool(std::string const& object)> values;
        std::function<bool(std::string const& object)> calls;
        bool processes = false;
    };

    /** `begin`: above all versions of earlier boards, whose listeners may come back. */
    explicit Board(Version begin) : version_(begin), forgotten_(begin), firstEvent_(begin) {}

    /** Enters a piece, in place of the one with the same key; nothing if that is the same.
     * `object`: its name, of a value. */
    void put(Kind kind, std::string const& key, std::string json, std::string const& object = {});
    void remove(Kind kind, std::string const& key);
    /** Forgets values: whoever hears that their object has gone needs no more. */
    void forgetValues(std::string const& keyBegin);
    void addEvent(std::string const& object, std::string json);
    /** Listeners hear of what has been entered since. */
    void publish();

    /** Until something newer than `since` has been published, the time is over, or it is closed. */
    void wait(Version since, std::chrono::milliseconds most) const;
    /** A JSON object with all that is newer than `since`, which becomes the version of now; empty
     * for nothing. See docs/web-api.md. */
    std::string take(Version& since, Wish const& wish) const;
    /** A piece; empty when there is none. */
    std::string find(Kind kind, std::string const& key) const;
    /** The pieces of a kind, with commas between them. */
    std::string all(Kind kind) const;

    void close();
    bool isClosed() const;

private:
    /** A piece or an event, which stays as it is. */
    struct Content {
        Kind kind;
        std::string key;
        std::string object;
        std::string json;  // empty: it has gone
    };
    using ContentPtr = std::shared_ptr<Content const>;
    struct Entry {
        ContentPtr content;
        Version version;

        bool isGone() const { return content->json.empty(); }
    };
    using Entries = std::list<Entry>;
    /** What is newer than a version. */
    struct News {
        bool isAfresh = false;
        bool hasMissed = false;
        std::vector<ContentPtr> entries;  // the newest first, as the next
        std::vector<ContentPtr> events;
    };

    News newsSince(Version since) const;
    static bool isWanted(Content const& entry, Wish const& wish);
    static void tellEvents(News const& news, Wish const& wish, std::string& json);
    static void tellEntries(News const& news, Wish const& wish, std::string& json);
    void forgetOldest();

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    // Guarded by mutex_, all of them.
    Entries entries_;  // the oldest first
    std::map<std::pair<Kind, std::string>, Entries::iterator> places_;
    std::deque<Entry> events_;
    Version version_;  // of what has been entered last
    Version published_ = 0;
    Version forgotten_;   // up to here something that has gone is forgotten
    Version firstEvent_;  // up to here events are forgotten
    std::size_t gone_ = 0;
    bool isClosed_ = false;
};
