// The tree of names, with all objects of this machine.
#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "PartObjects.h"

/**
 * All objects of this machine. Nobody sees half of the tree: it is built, and ended, under the run
 * permission, which keeps callers out. Other processes are told of an object by its events, which
 * give the permission up: therefore they come when all is there, and as long as it is.
 */
class Tree {
public:
    /** `watched`: the programs whose processes are parts. */
    explicit Tree(std::vector<std::string> watched) : watched_(std::move(watched)) {
        for (auto const& cpu : figures::cpuTimes())
            add<CpuObject>(machine::kCpu, root_, cpu.first);
        add<MemoryObject>(machine::kMemory, root_, "memory");
        for (TreflectServerObject const* object : all())
            object->sendCreationEvent();
        update();
    }
    ~Tree() {
        std::vector<TreflectServerObject const*> const objects = all();
        std::for_each(objects.rbegin(), objects.rend(),
                      [](TreflectServerObject const* object) { object->sendDeletionEvent(); });
    }
    Tree(Tree const&) = delete;
    Tree& operator=(Tree const&) = delete;

    std::size_t size() const { return all().size(); }

    /** Makes and ends objects as parts of the machine have come and gone. */
    void update() {
        follow<NetworkInterfaceObject>(machine::kNetwork, net_, figures::networkInterfaces());
        follow<DiskObject>(machine::kDisk, disk_, figures::disks());
        follow<ProcessObject>(machine::kProcess, processes_, watchedProcesses());
        tellChanges();
    }

private:
    using Parts = std::map<std::string, std::unique_ptr<TreflectServerObject>>;

    /** Makes an object, which enters itself among the children of its parent. */
    template <class Object>
    TreflectServerObject const& add(char const* kind, TreflectServerObject const& parent,
                                    std::string const& name) {
        root_.add(kind, name);
        auto& part = parts_[kind][name];
        part = std::make_unique<Object>(*parent.getClient(), name);
        return *part;
    }

    template <class Object>
    void follow(char const* kind, TreflectServerObject const& parent,
                std::vector<std::string> const& present) {
        std::vector<std::string> gone;
        for (auto const& part : parts_[kind]) {
            if (std::find(present.begin(), present.end(), part.first) == present.end())
                gone.push_back(part.first);
        }
        for (std::string const& name : gone)
            remove(kind, name);
        for (std::string const& name : present) {
            if (parts_[kind].count(name) == 0)
                add<Object>(kind, parent, name).sendCreationEvent();
        }
    }

    void remove(char const* kind, std::string const& name) {
        parts_[kind][name]->sendDeletionEvent();
        parts_[kind].erase(name);
        root_.remove(kind, name);
    }

    /** Tells whoever watches them of values that are others at each look. */
    void tellChanges() {
        static std::vector<std::pair<char const*, char const*>> const changing = {
            {machine::kCpu, "Load"},
            {machine::kMemory, "Free"},
            {machine::kNetwork, "ReceivedBytes"},
            {machine::kNetwork, "SentBytes"},
            {machine::kProcess, "Resident"}};
        for (auto const& [kind, attribute] : changing) {
            for (auto const& part : parts_[kind])
                part.second->changed(attribute);
        }
    }

    std::vector<std::string> watchedProcesses() const {
        std::vector<std::string> names;
        for (std::string const& program : watched_) {
            for (unsigned int const pid : figures::processes(program))
                names.push_back(program + "-" + std::to_string(pid));
        }
        return names;
    }

    /** Parents before their children. */
    std::vector<TreflectServerObject const*> all() const {
        std::vector<TreflectServerObject const*> objects{&root_, &net_, &disk_, &processes_};
        for (auto const& kind : parts_) {
            for (auto const& part : kind.second)
                objects.push_back(part.second.get());
        }
        return objects;
    }

    std::vector<std::string> const watched_;
    // Parents are there before their children, and go after them.
    MachineObject root_;
    GroupObject net_{*root_.getClient(), "net", "network interfaces"};
    GroupObject disk_{*root_.getClient(), "disk", "disks"};
    GroupObject processes_{*root_.getClient(), "process", "watched processes"};
    std::map<std::string, Parts> parts_;  // by kind and name
};
