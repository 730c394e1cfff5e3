// What actors tell of themselves: one line per event, "TIME VERB WORD...", in a file of each actor.
//
//   start TERMINATION BROKER      the broker is there
//   up                            the first observers are registered
//   met TERMINATION               the broker there has been caught up with; lost TERMINATION
//   create OBJECT CLASS           before the event is sent, and `created OBJECT` after that
//   delete OBJECT                 before the event is sent, and `deleted OBJECT` after that
//   observe ID CLASS KIND PLUS    before the registration, and `observing ID` after it; KIND is
//                                 "creations" or "deletions", PLUS is 1 with existing objects
//   unobserve ID                  before the removal, and `unobserved ID` after it
//   told ID OBJECT                an observer is told of an object
//   doing THREAD WHAT             an action begins
//   did BEGIN WHAT                an action has ended
//   call BEGIN TARGET RESULT WHAT a call has ended; TARGET is the object's name, RESULT is "ok",
//                                 "failed", "vetoed" or "wrong:" and what came back
//   sent BROKER COUNT             one-way calls to the object "home" of a broker so far
//   received ACTOR COUNT          one-way calls that came from an actor so far
//   fault TEXT                    something that must not be
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace soak {

/** Microseconds of a clock that all processes of the machine share. */
long long now();

struct Event {
    long long at = 0;
    std::string verb;
    std::vector<std::string> words;

    /** The word of this index, empty when there is none. */
    std::string const& word(std::size_t index) const;
    long long number(std::size_t index) const;
};

/** Nothing read: an event without a verb. */
Event parsed(std::string const& line);

/** The writing end. A line is written at once and in one piece, so that it stands in the file
 * though its process is killed in the next moment. Any thread. */
class Journal {
public:
    explicit Journal(std::string const& path);
    Journal(Journal const&) = delete;
    Journal& operator=(Journal const&) = delete;

    template <class... Words>
    void write(char const* verb, Words const&... words) {
        std::string line = std::to_string(now()) + " " + verb;
        (append(line, words), ...);
        writeLine(std::move(line));
    }

private:
    static void append(std::string& line, std::string const& word) { line += " " + word; }
    static void append(std::string& line, long long number) {
        line += " " + std::to_string(number);
    }
    void writeLine(std::string line);

    int const descriptor_;
};

/** The reading end: yields the lines that have been completed since the last time. */
class JournalReader {
public:
    explicit JournalReader(std::string path) : path_(std::move(path)) {}

    std::vector<Event> read();
    std::string const& path() const { return path_; }
    /** Begins anew what has become long, while nobody writes. The lines before are kept beside. */
    void rotate();

private:
    std::string path_;
    long long position_ = 0;
};

}  // namespace soak
