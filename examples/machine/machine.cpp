// The actor `machine` publishes server objects that stand for this very machine: its processors,
// memory, network interfaces and disks. They are in a tree of names: /machine, /machine/cpu0,
// /machine/memory, /machine/net/eth0, /machine/disk/root and so on. It runs until it is told to
// end (SIGINT, SIGTERM).
#include <handler_threads.h>
#include <logging.h>
#include <reflect.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <vector>

#include "PartObjects.h"

namespace {

/** All objects of this machine. Nobody sees half of the tree: it is built, and ended, under the run
 * permission, which keeps callers out. Other processes are told of an object by its events, which
 * give the permission up: therefore they come when all is there, and as long as it is. */
class Tree {
public:
    Tree() {
        for (auto const& cpu : figures::cpuTimes())
            add<CpuObject>(machine::kCpu, root_, cpu.first);
        add<MemoryObject>(machine::kMemory, root_, "memory");
        for (std::string const& name : figures::networkInterfaces())
            add<NetworkInterfaceObject>(machine::kNetwork, net_, name);
        for (std::string const& place : figures::disks())
            add<DiskObject>(machine::kDisk, disk_, place);
        for (TreflectServerObject const* object : all())
            object->sendCreationEvent();
    }
    ~Tree() {
        for (TreflectServerObject const* object : all())
            object->sendDeletionEvent();
    }
    Tree(Tree const&) = delete;
    Tree& operator=(Tree const&) = delete;

    std::size_t size() const { return all().size(); }

private:
    /** Makes an object, which enters itself among the children of its parent. */
    template <class Object>
    void add(char const* kind, TreflectServerObject const& parent, std::string const& name) {
        parts_.push_back(std::make_unique<Object>(*parent.getClient(), name));
        root_.add(kind, name);
    }

    std::vector<TreflectServerObject const*> all() const {
        std::vector<TreflectServerObject const*> objects{&root_, &net_, &disk_};
        for (auto const& part : parts_)
            objects.push_back(part.get());
        return objects;
    }

    // Parents are there before their children, and go after them.
    MachineObject root_;
    GroupObject net_{*root_.getClient(), "net", "network interfaces"};
    GroupObject disk_{*root_.getClient(), "disk", "disks"};
    std::vector<std::unique_ptr<TreflectServerObject>> parts_;
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
    Tree const tree;
    std::printf("machine: serving %zu objects\n", tree.size());
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
