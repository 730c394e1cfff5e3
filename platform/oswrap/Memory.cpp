#include "oswrap/Memory.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "oswrap/CancelGuards.h"

namespace {

/** The beginning of a file of /proc, as text. */
class ProcText {
public:
    explicit ProcText(char const* path) {
        OSWrap::DisableCancelStateGuard const noCancel;
        int const file = open(path, O_RDONLY | O_CLOEXEC);
        if (file < 0)
            return;
        ssize_t size;
        do
            size = read(file, text_, sizeof text_ - 1);
        while (size < 0 && errno == EINTR);
        close(file);
        if (size > 0)
            text_[size] = '\0';
    }
    char const* text() const { return text_; }

private:
    char text_[2048] = {};
};

/** A product as the 32-bit platform's `long` can hold it. */
long bytes(unsigned long long count, unsigned long long size) {
    unsigned long long product = 0;
    if (__builtin_mul_overflow(count, size, &product) || product > LONG_MAX)
        return LONG_MAX;
    return static_cast<long>(product);
}

}  // namespace

long oscwGetActorSize() {
    ProcText const statm("/proc/self/statm");
    unsigned long long resident = 0;
    if (std::sscanf(statm.text(), "%*u %llu", &resident) != 1)
        return -1;
    return bytes(resident, static_cast<unsigned long long>(sysconf(_SC_PAGESIZE)));
}

long oscwGetUnitFreeMem() {
    ProcText const meminfo("/proc/meminfo");
    char const* const line = std::strstr(meminfo.text(), "MemAvailable:");
    unsigned long long kibibytes = 0;
    if (line == nullptr || std::sscanf(line, "MemAvailable: %llu", &kibibytes) != 1)
        return -1;
    return bytes(kibibytes, 1024);
}
