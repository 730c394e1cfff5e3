#include "Figures.h"

#include <dirent.h>
#include <mntent.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <limits>
#include <memory>
#include <set>
#include <sstream>

namespace figures {

namespace {

constexpr char kInterfaces[] = "/sys/class/net";

// "cpu0 user nice system idle iowait irq softirq steal ..."
CpuTime cpuTimeOf(std::istringstream& columns) {
    constexpr int kIdle = 3;
    constexpr int kWaitingForDisk = 4;
    constexpr int kSteal = 7;  // what follows is counted in user time already
    CpuTime time;
    std::uint64_t ticks = 0;
    for (int column = 0; column <= kSteal && columns >> ticks; ++column) {
        time.all += ticks;
        if (column != kIdle && column != kWaitingForDisk)
            time.busy += ticks;
    }
    return time;
}

}  // namespace

std::map<std::string, CpuTime> cpuTimes() {
    std::map<std::string, CpuTime> times;
    std::ifstream file("/proc/stat");
    for (std::string line; std::getline(file, line);) {
        std::istringstream columns(line);
        std::string name;
        columns >> name;
        if (name.size() > 3 && name.compare(0, 3, "cpu") == 0)
            times[name] = cpuTimeOf(columns);
    }
    return times;
}

MemorySize memorySize() {
    constexpr std::uint64_t kKibi = 1024;
    MemorySize memory;
    std::ifstream file("/proc/meminfo");
    std::string name;
    for (std::uint64_t size = 0; file >> name >> size;
         file.ignore(std::numeric_limits<std::streamsize>::max(), '\n')) {
        if (name == "MemTotal:")
            memory.total = size * kKibi;
        else if (name == "MemAvailable:")
            memory.available = size * kKibi;
    }
    return memory;
}

std::vector<std::string> networkInterfaces() {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> const folder(opendir(kInterfaces), closedir);
    while (dirent const* const entry = folder ? readdir(folder.get()) : nullptr) {
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::uint64_t networkCounter(std::string const& interface, std::string const& counter) {
    std::ifstream file(std::string(kInterfaces) + "/" + interface + "/statistics/" + counter);
    std::uint64_t value = 0;
    file >> value;
    return value;
}

std::vector<std::string> disks() {
    std::vector<std::string> found;
    std::set<std::string> devices;
    std::unique_ptr<FILE, int (*)(FILE*)> const mounts(setmntent("/proc/self/mounts", "r"),
                                                       endmntent);
    while (mntent const* const mount = mounts ? getmntent(mounts.get()) : nullptr) {
        std::string const device = mount->mnt_fsname;
        std::string const place = mount->mnt_dir;
        // The root is a disk to its user, also where it is put together of others.
        bool const isDisk = place == "/" || device.compare(0, 5, "/dev/") == 0;
        struct statvfs size {};
        if (isDisk && statvfs(place.c_str(), &size) == 0 && size.f_blocks > 0 &&
            devices.insert(device).second)
            found.push_back(place);
    }
    return found;
}

DiskSize diskSize(std::string const& mountedAt) {
    struct statvfs size {};
    if (statvfs(mountedAt.c_str(), &size) != 0)
        return {};
    std::uint64_t const block = size.f_frsize;
    return {block * size.f_blocks, block * size.f_bavail};
}

std::vector<unsigned int> processes(std::string const& program) {
    std::vector<unsigned int> found;
    std::unique_ptr<DIR, int (*)(DIR*)> const folder(opendir("/proc"), closedir);
    while (dirent const* const entry = folder ? readdir(folder.get()) : nullptr) {
        std::string const number = entry->d_name;
        if (number.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::ifstream file("/proc/" + number + "/comm");
        std::string name;
        if (std::getline(file, name) && name == program)
            found.push_back(static_cast<unsigned int>(std::stoul(number)));
    }
    return found;
}

std::uint64_t residentSize(unsigned int pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
    std::uint64_t size = 0;
    std::uint64_t resident = 0;
    file >> size >> resident;
    return resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

unsigned int percent(std::uint64_t part, std::uint64_t whole) {
    return whole == 0 ? 0 : static_cast<unsigned int>(part * 100 / whole);
}

}  // namespace figures
