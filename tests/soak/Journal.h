// What actors tell of themselves: one line per event, "TIME VERB WORD...", in a file of each actor.
//
//   begin                         the process has started
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

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Turn.h"

namespace soak {

using testsupport::now;

struct Event {
    long long at = 0;
    std::string verb;
    std::vector<std::string> words;

    explicit Event(std::string const& line) {
        std::istringstream input(line);
        input >> at >> verb;
        for (std::string word; input >> word;)
            words.push_back(word);
    }
    long long number(std::size_t index) const {
        return std::strtoll(words.at(index).c_str(), nullptr, 10);
    }
};

/** The writing end. A line is written at once and in one piece, so that it stands in the file
 * though its process is killed in the next moment. Any thread. */
class Journal {
public:
    explicit Journal(std::string const& path)
        : descriptor_(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {
        if (descriptor_ < 0)
            throw std::system_error(errno, std::generic_category(), path);
    }

    template <class... Words>
    void write(char const* verb, Words const&... words) {
        std::ostringstream text;
        text << now() << " " << verb;
        ((text << " " << words), ...);
        std::string const line = text.str() + "\n";
        while (::write(descriptor_, line.data(), line.size()) < 0 && errno == EINTR) {
        }
    }

private:
    int const descriptor_;
};

/** The reading end: yields the lines that have been completed since the last time. */
class JournalReader {
public:
    explicit JournalReader(std::string path) : path_(std::move(path)) {}

    std::vector<Event> read() {
        std::vector<Event> events;
        std::ifstream file(path_);
        file.seekg(position_);
        for (std::string line; std::getline(file, line) && !file.eof();) {
            position_ += static_cast<long long>(line.size()) + 1;
            events.emplace_back(line);
        }
        return events;
    }
    std::string const& path() const { return path_; }
    /** Begins anew what has become long, while nobody writes. The lines before are kept beside. */
    void rotate() {
        constexpr long long kLongFile = 16 << 20;  // bytes
        if (position_ < kLongFile)
            return;
        std::filesystem::copy_file(path_, path_ + ".before",
                                   std::filesystem::copy_options::overwrite_existing);
        std::filesystem::resize_file(path_, 0);
        position_ = 0;
    }

private:
    std::string path_;
    long long position_ = 0;
};

}  // namespace soak
