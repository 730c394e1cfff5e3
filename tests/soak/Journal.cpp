#include "Journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace soak {
namespace {

constexpr long long kLongFile = 16 << 20;  // bytes

}  // namespace

long long now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<long long>(time.tv_sec) * 1'000'000 + time.tv_nsec / 1000;
}

std::string const& Event::word(std::size_t index) const {
    static std::string const none;
    return index < words.size() ? words[index] : none;
}

long long Event::number(std::size_t index) const {
    return std::strtoll(word(index).c_str(), nullptr, 10);
}

Event parsed(std::string const& line) {
    Event event;
    std::istringstream input(line);
    input >> event.at >> event.verb;
    for (std::string word; input >> word;)
        event.words.push_back(word);
    return event;
}

Journal::Journal(std::string const& path)
    : descriptor_(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {
    if (descriptor_ < 0)
        throw std::system_error(errno, std::generic_category(), path);
}

void Journal::writeLine(std::string line) {
    line += '\n';
    while (::write(descriptor_, line.data(), line.size()) < 0 && errno == EINTR) {
    }
}

std::vector<Event> JournalReader::read() {
    std::vector<Event> events;
    std::ifstream file(path_);
    file.seekg(position_);
    for (std::string line; std::getline(file, line) && !file.eof();) {
        position_ += static_cast<long long>(line.size()) + 1;
        events.push_back(parsed(line));
    }
    return events;
}

void JournalReader::rotate() {
    if (position_ < kLongFile)
        return;
    std::filesystem::copy_file(path_, path_ + ".before",
                               std::filesystem::copy_options::overwrite_existing);
    std::filesystem::resize_file(path_, 0);
    position_ = 0;
}

}  // namespace soak
