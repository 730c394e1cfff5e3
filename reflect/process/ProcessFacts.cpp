#include "reflect/process/ProcessFacts.h"

#include <pwd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

#include "oswrap/Memory.h"
#include "transport/IdInfo.h"

namespace {

constexpr double kNanosecond = 1e-9;

/** The words of /proc/self/stat behind the name of the program, which may have anything in it; the
 * first one is the third of the file. */
std::vector<std::string> statusWords() {
    std::ifstream file("/proc/self/stat");
    std::string const text{std::istreambuf_iterator<char>(file), {}};
    std::size_t const end = text.rfind(')');
    std::istringstream words(end == std::string::npos ? "" : text.substr(end + 1));
    return {std::istream_iterator<std::string>(words), {}};
}

/** Seconds since the start of the process. */
double uptime() {
    constexpr std::size_t kStartTime = 22 - 3;
    std::vector<std::string> const words = statusWords();
    if (words.size() <= kStartTime)
        return 0;
    double const ticks = std::strtod(words[kStartTime].c_str(), nullptr);
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    double const sinceBoot =
        static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * kNanosecond;
    return sinceBoot - ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::int64_t startTime() {
    double const age = uptime();
    if (age <= 0)
        return 0;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000 -
           static_cast<std::int64_t>(age * 1000);
}

/** From the machine's own list: who asks here must not wait for a directory on the network. */
std::string userName() {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> const list(std::fopen("/etc/passwd", "re"),
                                                               &std::fclose);
    passwd entry{};
    passwd* found = nullptr;
    char buffer[4096];
    while (list && fgetpwent_r(list.get(), &entry, buffer, sizeof buffer, &found) == 0) {
        if (entry.pw_uid == geteuid())
            return entry.pw_name;
    }
    return std::to_string(geteuid());
}

std::vector<std::string> commandLine() {
    std::ifstream file("/proc/self/cmdline");
    std::vector<std::string> words;
    for (std::string word; std::getline(file, word, '\0');)
        words.push_back(word);
    return words;
}

unsigned int entriesOf(char const* folder) {
    std::error_code error;
    std::filesystem::directory_iterator entries(folder, error);
    unsigned int count = 0;
    for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error))
        ++count;
    return count;
}

}  // namespace

processobject::Identity processfacts::identity() {
    return {Transport::IdInfo::instance().getActor(),
            static_cast<unsigned int>(getpid()),
            userName(),
            REFLECTORB_VERSION,
            startTime(),
            commandLine(),
            {}};
}

processobject::Usage processfacts::usage() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    unsigned int const descriptors = entriesOf("/proc/self/fd");
    processobject::Usage used;
    used.uptime = uptime();
    used.threads = entriesOf("/proc/self/task");
    used.memory = oscwGetActorSize();
    used.descriptors = descriptors > 0 ? descriptors - 1 : 0;  // one was open for the count
    used.mostDescriptors = static_cast<unsigned int>(limit.rlim_cur);
    return used;
}
