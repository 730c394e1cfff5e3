// The actor `machine` publishes server objects that stand for this very machine: its processors,
// memory, network interfaces and disks. It runs until it is told to end (SIGINT, SIGTERM).
#include <handler_threads.h>
#include <logging.h>
#include <reflect.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <vector>

#include "Cpu.h"
#include "Disk.h"
#include "Figures.h"
#include "Inventory.h"
#include "Memory.h"
#include "NetworkInterface.h"

namespace {

// ---- The server objects ------------------------------------------------------------------------
// Their functions are called by the broker's worker threads, but only one at a time and never while
// another thread of the process has the run permission: no locks are needed in here.

class CpuObject final : public CpuSkeleton {
public:
    explicit CpuObject(std::string const& name)
        : CpuSkeleton(inventory::partId(inventory::kCpu, name)), name_(name) {}

    unsigned int load() override {
        figures::CpuTime const now = figures::cpuTimes()[name_];
        // Ticks last 10 ms: over a shorter time than a few of them the figure would be nonsense.
        constexpr std::uint64_t kFewTicks = 10;
        if (now.all >= before_.all + kFewTicks) {
            load_ = figures::percent(now.busy - before_.busy, now.all - before_.all);
            before_ = now;
        }
        return load_;
    }
    AlarmState alarm() override { return alarm_.at(load_); }
    TipprmiResult<void> setAlarmLimit(unsigned int percent) override { return alarm_.set(percent); }

private:
    std::string const name_;
    figures::CpuTime before_;  // the first load is that since the machine was started
    unsigned int load_ = 0;
    AlarmLimit alarm_;
};

class MemoryObject final : public MemorySkeleton {
public:
    explicit MemoryObject(std::string const& name)
        : MemorySkeleton(inventory::partId(inventory::kMemory, name)) {}

    ByteCount total() override { return {figures::memorySize().total}; }
    ByteCount free() override { return {figures::memorySize().available}; }
    AlarmState alarm() override {
        figures::MemorySize const size = figures::memorySize();
        return alarm_.at(figures::percent(size.total - size.available, size.total));
    }
    TipprmiResult<void> setAlarmLimit(unsigned int percent) override { return alarm_.set(percent); }

private:
    AlarmLimit alarm_;
};

class NetworkInterfaceObject final : public NetworkInterfaceSkeleton {
public:
    explicit NetworkInterfaceObject(std::string const& name)
        : NetworkInterfaceSkeleton(inventory::partId(inventory::kNetwork, name)), name_(name) {}

    ByteCount receivedBytes() override { return {figures::networkCounter(name_, "rx_bytes")}; }
    ByteCount sentBytes() override { return {figures::networkCounter(name_, "tx_bytes")}; }

private:
    std::string const name_;
};

class DiskObject final : public DiskSkeleton {
public:
    explicit DiskObject(std::string const& mountedAt)
        : DiskSkeleton(inventory::partId(inventory::kDisk, mountedAt)), mountedAt_(mountedAt) {}

    ByteCount size() override { return {figures::diskSize(mountedAt_).total}; }
    ByteCount free() override { return {figures::diskSize(mountedAt_).available}; }
    AlarmState alarm() override {
        figures::DiskSize const size = figures::diskSize(mountedAt_);
        return alarm_.at(figures::percent(size.total - size.available, size.total));
    }
    TipprmiResult<void> setAlarmLimit(unsigned int percent) override { return alarm_.set(percent); }

private:
    std::string const mountedAt_;
    AlarmLimit alarm_;
};

class InventoryObject final : public InventorySkeleton {
public:
    InventoryObject() : InventorySkeleton(inventory::id()) {}

    void add(std::string const& kind, std::string const& name) { parts_[kind].push_back(name); }

    std::string host() override {
        char name[256] = {};
        gethostname(name, sizeof name - 1);
        return name;
    }
    // Callers may ask for anything: what they ask for must leave nothing behind.
    Names parts(std::string const& kind) override {
        auto const found = parts_.find(kind);
        return found == parts_.end() ? Names() : found->second;
    }

private:
    std::map<std::string, Names> parts_;
};

// ---- The actor ---------------------------------------------------------------------------------

/** All objects of this machine. An object is published when it has been constructed, and withdrawn
 * when it is destroyed. The inventory comes last, so that who finds it finds all the others too. */
class Machine {
public:
    Machine() {
        std::vector<std::pair<std::string, std::string>> parts;
        for (auto const& cpu : figures::cpuTimes())
            publish<CpuObject>(inventory::kCpu, cpu.first, parts);
        publish<MemoryObject>(inventory::kMemory, "main", parts);
        for (std::string const& name : figures::networkInterfaces())
            publish<NetworkInterfaceObject>(inventory::kNetwork, name, parts);
        for (std::string const& place : figures::disks())
            publish<DiskObject>(inventory::kDisk, place, parts);
        inventory_ = std::make_unique<InventoryObject>();
        for (auto const& part : parts)
            inventory_->add(part.first, part.second);
    }

    std::size_t size() const { return objects_.size() + 1; }

private:
    template <class Object>
    void publish(char const* kind, std::string const& name,
                 std::vector<std::pair<std::string, std::string>>& parts) {
        objects_.push_back(std::make_unique<Object>(name));
        parts.emplace_back(kind, name);
    }

    std::vector<std::unique_ptr<TipprmiObjectSkeleton>> objects_;
    std::unique_ptr<InventoryObject> inventory_;
};

sigset_t endSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

}  // namespace

int main() {
    // Blocked before the first thread is started, so that the signals wait for sigwait below.
    sigset_t const signals = endSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    Logging::setThreshold(3);  // errors only

    // Objects are made, used and destroyed under the run permission.
    TreflectHandlerState const inside(true);
    Machine const machine;
    std::printf("machine: serving %zu objects\n", machine.size());
    std::fflush(stdout);
    {
        // Whoever waits gives it back, so that calls can come in.
        TreflectReleaseHandlerState const outside;
        int signal = 0;
        sigwait(&signals, &signal);
    }
    std::puts("machine: ending");
    return 0;
}
