// A program with a broker that may be older than the classes of its objects. While the process
// ends, a worker goes on answering for the classes of an object that is never destroyed.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "ClassTables.h"
#include "handler_threads.h"
#include "ipprmi.h"

namespace {

using Ids = TipprmiSequence<unsigned int>;

std::atomic<int> answers{0};
std::atomic<bool> over{false};  // nobody answers any more

struct Broker {
    Broker() {
        TreflectHandlerState const inside(true);
        TreflectORB::getInstance(NSID_UNIT);
    }
};

/** Its end comes after that of the meta objects that are younger, and before that of the broker. */
struct Pause {
    ~Pause() {
        int const before = answers;
        while (answers < before + 200 && !over)
            std::this_thread::yield();
    }
};

Broker const broker;
Pause const pause;

class Thing : public TreflectSkeleton<tableDerived> {
public:
    Thing() : TreflectSkeleton(TipprmiOID("", NSID_UNIT), nullptr, "thing") {}
};

/** A handle that leads through the broker, as one that another process sent. */
TreflectObject handleOn(Thing const& thing) {
    TipprmiStream stream(100);
    stream << "" << NSID_UNIT << thing.getInternalOID() << thing.orbId().value();
    TreflectObject handle;
    stream >> handle;
    return handle;
}

/** Never ends but with the broker. */
void ask(TreflectObject const& handle) {
    constexpr unsigned int kGetClassIds = 1108;
    while (TipprmiResult<Ids> const ids = tipprmiCall<Ids>(handle, 0, kGetClassIds)) {
        Ids const& all = ids.value();
        if (all.getLength() != 2 || all[0] != table::kDerived || all[1] != table::kBase)
            std::_Exit(3);
        ++answers;
    }
    over = true;
}

}  // namespace

int main() {
    {
        TreflectHandlerState const inside(true);
        auto const& thing = *new Thing;
        TreflectMetaObject* const meta =
            InterfaceRepository::instance()->findInterface(table::kDerived);
        if (!meta->metaAttribute("X"))
            return 4;
        auto const& handle = *new TreflectObject(handleOn(thing));
        std::thread([&handle] {
            TreflectHandlerState const asking(true);
            ask(handle);
        }).detach();
    }
    while (answers == 0 && !over)
        std::this_thread::yield();
    std::puts("ids right");
    std::fflush(stdout);
    return over ? 5 : 0;
}
