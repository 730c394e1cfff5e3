#include "ScaleMember.h"

#include <handler_threads.h>
#include <logging.h>
#include <oswrap.h>
#include <reflect.h>
#include <transport.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <vector>

namespace bench {

namespace {

constexpr unsigned int kItemClass = 0x5CA1E;
TreflectMetaClass const itemMeta("Item", kItemClass, {}, {});

class Item final : public TreflectServerObject {
public:
    explicit Item(std::string const& name)
        : TreflectServerObject(TipprmiOID(name, NSID_UNIT), nullptr, name) {}

    unsigned int getServerClassId() const override { return kItemClass; }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return itemMeta.classIds();
    }
};

double now() {
    return std::chrono::duration<double, std::micro>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

class Watcher final : public TreflectObserver {
public:
    explicit Watcher(std::string const& name)
        : TreflectObserver(TipprmiOID(name, NSID_UNIT), nullptr, name) {}
    bool update() override {
        told_ = now();
        return true;
    }
    /** The clock at the last notice; 0 when there was none since the last question. */
    double take() { return told_.exchange(0); }

private:
    std::atomic<double> told_{0};
};

template <class Condition>
void waitUntil(Condition const& condition) {
    while (!condition())
        OSWrap::Thread::sleep(0, 1'000'000);
}

double statusFigure(std::string const& key) {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        double value = 0;
        if (word == key && status >> value)
            return value;
    }
    return 0;
}

long descriptors() {
    auto const folder = std::filesystem::directory_iterator("/proc/self/fd");
    return std::distance(begin(folder), end(folder)) - 1;  // but the one that looks
}

class Member {
public:
    explicit Member(TreflectORB& orb)
        : orb_(orb), watcher_("watcher" + std::to_string(orb.orbId().value())) {}

    void serve(std::string const& command, std::istringstream& rest) {
        std::string argument;
        rest >> argument;
        if (command == "group")
            awaitGroup(std::stoul(argument));
        else if (command == "publish")
            items_.push_back(std::make_unique<Item>(argument));
        else if (command == "locate")
            locate(argument);
        else if (command == "observe")
            observe();
        else if (command == "create")
            create();
        else if (command == "told")
            awaitNotice();
        else if (command == "sent")
            countSent();
        else if (command == "figures")
            std::printf("%.0f %.0f %ld", statusFigure("VmRSS:"), statusFigure("Threads:"),
                        descriptors());
        std::printf(" %s\n", command.c_str());
        std::fflush(stdout);
    }

private:
    void awaitGroup(std::size_t size) {
        TreflectReleaseHandlerState const outside;
        auto const group = Transport::TransportLayer::instance().getGroup(orb_.termId().groupId());
        waitUntil([&] { return group.contains().size() == size; });
    }
    void locate(std::string const& name) {
        double const before = now();
        bool const found = orb_.locateObject(TipprmiOID(name, NSID_UNIT)).getInternalOID() != 0;
        std::printf("%.1f %d", now() - before, found ? 1 : 0);
    }
    void observe() {
        double const before = now();
        orb_.observeCreations(kItemClass, watcher_, false);
        std::printf("%.1f", now() - before);
    }
    void create() {
        items_.push_back(std::make_unique<Item>("item" + std::to_string(items_.size())));
        double const before = now();
        items_.back()->sendCreationEvent(&itemMeta);
        std::printf("%.1f %.1f", now() - before, before);
    }
    void countSent() {
        TreflectORB::PerfCntInfo const info = orb_.getPerfCnts(orb_.termId());
        unsigned int sent = 0;
        for (unsigned int i = 0; i < info.counters.getLength(); ++i) {
            if (info.counters[i].termination != orb_.termId())
                sent += info.counters[i].sent;
        }
        std::printf("%u", sent);
    }
    void awaitNotice() {
        TreflectReleaseHandlerState const outside;
        double told = 0;
        waitUntil([&] { return (told = watcher_.take()) != 0; });
        std::printf("%.1f", told);
    }

    TreflectORB& orb_;
    Watcher watcher_;
    std::vector<std::unique_ptr<Item>> items_;
};

}  // namespace

int memberMain(std::string const& folder) {
    Logging::setThreshold(3);
    Transport::Setup::directory(folder);
    TreflectHandlerState const inside(true);
    TreflectORB* const orb = TreflectORB::getInstance(NSID_UNIT);
    if (!orb)
        return 1;
    Member member(*orb);
    std::string line;
    for (;;) {
        {
            TreflectReleaseHandlerState const outside;
            if (!std::getline(std::cin, line))
                break;
        }
        std::istringstream words(line);
        std::string command;
        words >> command;
        member.serve(command, words);
    }
    return 0;
}

}  // namespace bench
