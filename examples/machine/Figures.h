// Reads the figures of this machine from /proc and /sys. Nothing here knows of remote calls.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace figures {

/** Time that a processor has spent, in ticks since the machine was started. */
struct CpuTime {
    std::uint64_t busy = 0;
    std::uint64_t all = 0;
};

struct MemorySize {
    std::uint64_t total = 0;
    std::uint64_t available = 0;
};

struct DiskSize {
    std::uint64_t total = 0;
    std::uint64_t available = 0;
};

/** By name: cpu0, cpu1, ... */
std::map<std::string, CpuTime> cpuTimes();
MemorySize memorySize();
std::vector<std::string> networkInterfaces();
/** A counter of an interface, such as "rx_bytes"; 0 when the interface has gone. */
std::uint64_t networkCounter(std::string const& interface, std::string const& counter);
/** Where disks are mounted, each disk once. */
std::vector<std::string> disks();
DiskSize diskSize(std::string const& mountedAt);
/** Numbers of the processes of a program, by the name that the kernel shows. */
std::vector<unsigned int> processes(std::string const& program);
/** Memory that a process has; 0 when it has ended. */
std::uint64_t residentSize(unsigned int pid);
/** Part of the whole in percent; 0 of nothing. */
unsigned int percent(std::uint64_t part, std::uint64_t whole);

}  // namespace figures
