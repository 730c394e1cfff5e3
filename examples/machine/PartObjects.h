// The server objects: what answers when the parts of the machine are called. Their functions are
// called by the broker's worker threads, but only one at a time and never while another thread of
// the process has the run permission: no locks are needed in here.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "AlarmLimit.h"
#include "Figures.h"
#include "Identifiers.h"

/** The alarm of a part, whatever its class. */
template <class Skeleton>
class WatchedObject : public Skeleton {
public:
    using Skeleton::Skeleton;

    watchedPart::AlarmState getAlarm() override { return alarm_.at(used()); }
    unsigned int getAlarmLimit() override { return alarm_.get(); }
    TipprmiOutcome<void, watchedPart::BadLimit> setAlarmLimit(unsigned int percent) override {
        return alarm_.set(percent);
    }

protected:
    /** Percent of the part that is in use. */
    virtual unsigned int used() = 0;

private:
    AlarmLimit alarm_;
};

class CpuObject final : public WatchedObject<CpuSkeleton> {
public:
    CpuObject(TreflectObject const& parent, std::string const& name)
        : WatchedObject(machine::partId(machine::kCpu, name), &parent, name), name_(name) {}

    std::string getDescription() override { return "processor"; }
    unsigned int getLoad() override {
        figures::CpuTime const now = figures::cpuTimes()[name_];
        // Ticks last 10 ms: over a shorter time than a few of them the figure would be nonsense.
        constexpr std::uint64_t kFewTicks = 10;
        if (now.all >= before_.all + kFewTicks) {
            load_ = figures::percent(now.busy - before_.busy, now.all - before_.all);
            before_ = now;
        }
        return load_;
    }

private:
    unsigned int used() override { return load_; }

    std::string const name_;
    figures::CpuTime before_;  // the first load is that since the machine was started
    unsigned int load_ = 0;
};

class MemoryObject final : public WatchedObject<MemorySkeleton> {
public:
    MemoryObject(TreflectObject const& parent, std::string const& name)
        : WatchedObject(machine::partId(machine::kMemory, name), &parent, name) {}

    std::string getDescription() override { return "main memory"; }
    std::uint64_t getTotal() override { return figures::memorySize().total; }
    std::uint64_t getFree() override { return figures::memorySize().available; }

private:
    unsigned int used() override {
        figures::MemorySize const size = figures::memorySize();
        return figures::percent(size.total - size.available, size.total);
    }
};

class NetworkInterfaceObject final : public NetworkInterfaceSkeleton {
public:
    NetworkInterfaceObject(TreflectObject const& parent, std::string const& name)
        : NetworkInterfaceSkeleton(machine::partId(machine::kNetwork, name), &parent, name),
          name_(name) {}

    std::string getDescription() override { return "network interface"; }
    std::uint64_t getReceivedBytes() override { return figures::networkCounter(name_, "rx_bytes"); }
    std::uint64_t getSentBytes() override { return figures::networkCounter(name_, "tx_bytes"); }

private:
    std::string const name_;
};

class DiskObject final : public WatchedObject<DiskSkeleton> {
public:
    DiskObject(TreflectObject const& parent, std::string const& mountedAt)
        : WatchedObject(machine::partId(machine::kDisk, mountedAt), &parent, nameOf(mountedAt)),
          mountedAt_(mountedAt) {}

    std::string getDescription() override { return "disk mounted at " + mountedAt_; }
    std::uint64_t getTotal() override { return figures::diskSize(mountedAt_).total; }
    std::uint64_t getFree() override { return figures::diskSize(mountedAt_).available; }

private:
    /** Names in the tree have no "/": it stands between them. */
    static std::string nameOf(std::string mountedAt) {
        if (mountedAt == "/")
            return "root";
        std::replace(mountedAt.begin(), mountedAt.end(), '/', ':');
        return mountedAt;
    }
    unsigned int used() override {
        figures::DiskSize const size = figures::diskSize(mountedAt_);
        return figures::percent(size.total - size.available, size.total);
    }

    std::string const mountedAt_;
};

class ProcessObject final : public ProcessSkeleton {
public:
    /** `name` ends with "-" and the process's number. */
    ProcessObject(TreflectObject const& parent, std::string const& name)
        : ProcessSkeleton(machine::partId(machine::kProcess, name), &parent, name),
          pid_(static_cast<unsigned int>(std::stoul(name.substr(name.rfind('-') + 1)))) {}

    std::string getDescription() override { return "process"; }
    unsigned int getPid() override { return pid_; }
    std::uint64_t getResident() override { return figures::residentSize(pid_); }

private:
    unsigned int const pid_;
};

/** A place in the tree that holds parts of one kind. */
class GroupObject final : public PartSkeleton {
public:
    GroupObject(TreflectObject const& parent, std::string const& name,
                std::string const& description)
        : PartSkeleton(machine::partId("group", name), &parent, name), description_(description) {}

    std::string getDescription() override { return description_; }

private:
    std::string const description_;
};

class MachineObject final : public MachineSkeleton {
public:
    MachineObject() : MachineSkeleton(machine::id(), nullptr, machine::root().name) {}

    void add(std::string const& kind, std::string const& name) { parts_[kind].insert(name); }
    void remove(std::string const& kind, std::string const& name) { parts_[kind].erase(name); }

    std::string getDescription() override { return "this machine"; }
    std::string getHost() override {
        char name[256] = {};
        gethostname(name, sizeof name - 1);
        return name;
    }
    // Callers may ask for anything: what they ask for must leave nothing behind.
    machine::Names parts(std::string const& kind) override {
        machine::Names names;
        if (auto const found = parts_.find(kind); found != parts_.end()) {
            for (std::string const& name : found->second)
                names.push_back(name);
        }
        return names;
    }

private:
    std::map<std::string, std::set<std::string>> parts_;
};
