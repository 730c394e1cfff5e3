// Server objects: names, parents and children, here and over the borders of processes, and what
// happens when one goes while it is waited for.
#include "BrokerTest.h"
#include "Gauge.h"
#include "RawPeer.h"
#include "ReflectActor.h"
#include "Threads.h"

namespace {

using ::testing::ElementsAre;

std::vector<std::string> namesOf(TipprmiSequence<TreflectObject, 0u> const& objects) {
    std::vector<std::string> names;
    for (unsigned int i = 0; i < objects.getLength(); ++i)
        names.push_back(objects[i].getRelName());
    return names;
}

class ServerObject : public BrokerTest {
protected:
    /** A handle on object `ioid` of a peer. */
    TreflectObject objectOf(RawPeer const& peer, unsigned int ioid) {
        return wire::handleFrom(wire::handle(ioid, orb().convertId(peer.termId())));
    }
    /** A node whose parent is object 7 of a peer. */
    Permitted<Node> nodeBelow(RawPeer const& peer) {
        return permitted([&] {
            TreflectObject const parent = objectOf(peer, 7);
            return makePermitted<Node>("node", &parent);
        });
    }
    /** What a peer calls, without waiting for the answer. */
    void call(RawPeer& peer, unsigned int ioid, unsigned int cc, unsigned int mc,
              std::string const& arguments = "") {
        peer.sendCall(broker(), kCall, ioid, true, cc, int(mc), arguments);
    }
    static std::string answerOf(RawPeer& peer) {
        return wire::data(wire::awaitResponse(peer, kCall));
    }
    static constexpr unsigned int kCall = 0xCA11;
};

// ---- Names -------------------------------------------------------------------------------------

TEST_F(ServerObject, HasANameOfAnyLength) {
    TreflectHandlerState const handlerState(true);
    for (std::size_t const length : {0, 1, 15, 16, 17, 5000}) {
        std::string const name(length, 'n');
        Node const node("short", name, nullptr);
        EXPECT_EQ(node.objectName(), name);
        EXPECT_EQ(TreflectObject(&node).getRelName(), name);
        EXPECT_EQ(TreflectObject(&node).getAbsName(), "/" + name);
    }
    EXPECT_EQ(Node("eth0/1").getRelName(), "eth0/1");
    expectLine(3, "name \"eth0/1\" has a \"/\": no absolute name leads to this object");
}

TEST_F(ServerObject, TellsItsPlaceOverTheBordersOfProcessesAlsoWhenOneIsKilled) {
    auto root = makePermitted<Node>("root");
    auto first = std::make_unique<ReflectActor>();
    ReflectActor second;
    first->ask("lamp mid root", "made");
    second.ask("lamp leaf mid", "made");
    permitted([&] {
        TreflectObject const top(root.get());
        TreflectObject const leaf(oid("leaf"));
        EXPECT_EQ(leaf.getAbsName(), "/root/mid/leaf");
        EXPECT_EQ(leaf.getParent(), TreflectObject(oid("mid")));
        EXPECT_EQ(leaf.getParent().getParent(), top);
        EXPECT_FALSE(top.getParent().isConnected());
        EXPECT_THAT(namesOf(top.getChilds()), ElementsAre("mid"));
        EXPECT_EQ(top.getChild("mid").getChild("leaf"), leaf);
        EXPECT_EQ(static_cast<Node const&>(*root).getChild("mid").getAbsName(), "/root/mid");
    });
    first->child().kill();
    first->child().waitForExit();
    permitted([&] {
        // Of the child that was killed an entry is left, which answers nothing, at once.
        EXPECT_EQ(TreflectObject(oid("leaf")).getAbsName(), "/leaf");
        ASSERT_EQ(root->getChilds().getLength(), 1u);
        EXPECT_EQ(root->getChild("mid").getRelName(), "");
        EXPECT_EQ(root->getChild("mid").getChilds().getLength(), 0u);
        EXPECT_EQ(root->getChild("mid").meta(), nullptr);
        EXPECT_TRUE(log_.contains("Unmarshall error on cc=0x0, mc=1101") ||
                    log_.contains("to stub object set to invalid"));
    });
    second.ask("destroy leaf", "destroyed");
    ReflectActor third;
    third.ask("lamp mid root", "made");
    permitted([&] { EXPECT_THAT(namesOf(root->getChilds()), ElementsAre("mid")); });
    third.ask("destroy mid", "destroyed");
    permitted([&] { EXPECT_EQ(root->getChilds().getLength(), 0u); });

    third.ask("lamp mid root", "made");
    second.ask("lamp leaf mid", "made");
    second.ask("destroy leaf", "destroyed");
    permitted([&] {
        TreflectObject const mid(oid("mid"));
        EXPECT_EQ(mid.getChilds().getLength(), 0u);
        root.reset();
        EXPECT_EQ(mid.getAbsName(), "/mid");
    });
    third.ask("destroy mid", "destroyed");
}

TEST_F(ServerObject, IsThereForItsParentWhileItIsBuilt) {
    /** Asks each child at once, which waits for the parent to answer. */
    class Curious : public Node {
    public:
        using Node::Node;
        void registerChild(std::string const& name, TreflectObject const& child) override {
            TreflectObject const asked(child);
            Node::registerChild(name, asked);
            absName = asked.getAbsName();
            meta = asked.meta();
        }
        std::string absName;
        TreflectMetaObject const* meta = &deviceMeta;
    };
    auto parent = makePermitted<Curious>("curious");
    ReflectActor actor;
    actor.ask("lamp child curious", "made");
    permitted([&] {
        EXPECT_EQ(parent->absName, "/curious/child");
        EXPECT_EQ(parent->meta, nullptr) << "it has no class before it is built";
        EXPECT_EQ(parent->getChild("child").meta(), &lampMeta);
    });
}

TEST_F(ServerObject, MayBeItsOwnAncestorByMistake) {
    TreflectHandlerState const handlerState(true);
    TreflectObject const later(oid("loop"));
    Node const middle("middle", &later);
    TreflectObject const parent(&middle);
    Node const loop("loop", &parent);
    EXPECT_EQ(loop.getAbsName(), "/middle/loop");
    ASSERT_TRUE(middle.getParent().isConnected()) << "copying a handle finds its object";
    EXPECT_EQ(loop.getAbsName(), "/loop/middle/loop");
    EXPECT_EQ(middle.getAbsName(), "/middle/loop/middle");
    EXPECT_EQ(log_.count("object \"loop\" is its own ancestor"), 1u);
}

TEST_F(ServerObject, MayBeItsOwnAncestorOverAnotherProcess) {
    ReflectActor actor;
    TreflectObject const later = permitted([] { return TreflectObject(oid("far")); });
    auto near = makePermitted<Node>("near", &later);
    actor.ask("lamp far near", "made");
    permitted([&] {
        ASSERT_TRUE(near->getParent().isConnected());
        EXPECT_EQ(near->getAbsName(), "/near/far/near");
        EXPECT_EQ(TreflectObject(oid("far")).getAbsName(), "/far/near/far");
    });
    EXPECT_EQ(log_.count("object \"near\" is its own ancestor"), 1u);
    // Many may ask at the same time for a name that is none of these.
    auto root = makePermitted<Node>("root");
    actor.ask("lamp stem root", "made");
    auto const leaf = permitted([] {
        TreflectObject const stem(oid("stem"));
        return makePermitted<Node>("leaf", &stem);
    });
    testsupport::TestThreads(8, [&](std::size_t) {
        permitted([&] { EXPECT_EQ(leaf->getAbsName(), "/root/stem/leaf"); });
    });
}

// ---- Children ----------------------------------------------------------------------------------

/** What every object does with children, wherever it is. */
void expectKeepsChildren(TreflectObject const& parent) {
    Node const one("one");
    Node const two("two");
    std::string const longName(300, 'z');
    parent.registerChild(longName, TreflectObject(&one));
    parent.registerChild("b", TreflectObject(&one));
    parent.registerChild("a", TreflectObject(&two));
    EXPECT_THAT(namesOf(parent.getChilds()), ElementsAre("two", "one", "one"));
    parent.registerChild("b", TreflectObject(&two));
    EXPECT_THAT(namesOf(parent.getChilds()), ElementsAre("two", "two", "one"));
    EXPECT_EQ(parent.getChild(longName), TreflectObject(&one));
    EXPECT_FALSE(parent.getChild("B").isConnected());
    EXPECT_FALSE(parent.getChild("").isConnected());
    for (char const* const name : {"a", "a", "never there"})
        parent.unregisterChild(name);
    EXPECT_THAT(namesOf(parent.getChilds()), ElementsAre("two", "one"));
    parent.unregisterChild("b");
    parent.unregisterChild(longName);
    EXPECT_EQ(parent.getChilds().getLength(), 0u);

    parent.registerChild("late", TreflectObject(oid("late")));
    EXPECT_FALSE(parent.getChild("late").isConnected());
    Node const late("late");
    EXPECT_TRUE(parent.getChild("late").isConnected());
    parent.unregisterChild("late");
}

TEST_F(ServerObject, KeepsChildrenInTheOrderOfTheirNames) {
    ReflectActor actor;
    actor.ask("lamp far", "made");
    TreflectHandlerState const handlerState(true);
    Node const here("here");
    expectKeepsChildren(TreflectObject(&here));
    expectKeepsChildren(TreflectObject(oid("far")));
    EXPECT_EQ(log_.count("Unmarshall error"), 0u);
}

// ---- Classes and codes -------------------------------------------------------------------------

TEST_F(ServerObject, SaysWhatItDoesNotServeOrKnow) {
    TreflectHandlerState const handlerState(true);
    Node node("node");
    for (unsigned int const code : {0u, 999u, 1002u, 1099u, 1102u, 1109u, 0xFFFFFFFFu}) {
        TipprmiStream in(100);
        TipprmiStream out(100);
        EXPECT_FALSE(node.dispatch(true, 0xABCDEF01, code, in, out));
        EXPECT_TRUE(out.empty());
        EXPECT_EQ(log_.count(3, "Unknown method code " + std::to_string(static_cast<int>(code))),
                  1u);
        log_.clear();
    }
    node.sendCreationEvent();
    node.sendDeletionEvent();
    std::string const line = "TreflectServerObject::sendCreationEvent(): no meta object";
    EXPECT_EQ(log_.count(3, line), 2u);
    EXPECT_EQ(log_.find(line)->text, line);
    EXPECT_EQ(log_.find(line)->source, "REFLECT_serverObject");
}

TreflectMetaClass const diskMeta("Disk", 0x4D150001, {}, {{"reset", 1}, {"spin", 2}});
TreflectMetaClass const hardDiskMeta("HardDisk", 0x4D150002, {&diskMeta},
                                     {{"format", 1}, {"spin", 2}});

/** Written by hand, with codes from 1 as its base, of which it repeats one operation. */
class HardDisk : public TreflectSkeleton<hardDiskMeta> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        if (mc == 1 || mc == 2)
            return serve(hardDiskMeta.getClassId(), cc, mc, in, out,
                         mc == 1 ? &HardDisk::format : &HardDisk::spin);
        return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
    void format() { ++formatted; }
    void spin() { ++spun; }

    int formatted = 0;
    int spun = 0;
};

TEST_F(ServerObject, RunsNoOperationOfAnotherNameForACallOfItsBase) {
    TreflectHandlerState const handlerState(true);
    HardDisk disk(TipprmiOID("disk", NSID_UNIT), nullptr, "disk");
    auto const isServed = [&](TreflectMetaClass const& caller, unsigned int mc) {
        TipprmiStream in(100);
        TipprmiStream out(100);
        return disk.dispatch(true, caller.getClassId(), mc, in, out);
    };
    EXPECT_FALSE(isServed(diskMeta, 1));
    EXPECT_EQ(disk.formatted, 0);
    EXPECT_TRUE(isServed(hardDiskMeta, 1));
    EXPECT_EQ(disk.formatted, 1);
    EXPECT_TRUE(isServed(diskMeta, 2)) << "what the derived class repeats";
    EXPECT_EQ(disk.spun, 1);
}

// ---- Going while it is waited for --------------------------------------------------------------

TEST_F(ServerObject, MayBeDestroyedWhileItsParentIsAskedForItsName) {
    RawPeer peer(group(), wire::answeringAllBut({1100}));
    auto node = nodeBelow(peer);
    call(peer, node->getInternalOID(), 0, 1100);
    TreflectMessage const asked = wire::awaitCall(peer, 1100);
    node.reset();
    EXPECT_EQ(wire::callOf(wire::awaitCall(peer, 1107)).ioid, 7u);
    wire::answer(peer, asked, wire::kEmptyContainer + wire::text("/far"));
    EXPECT_EQ(answerOf(peer), wire::kEmptyContainer + wire::text("/far/node"));
}

TEST_F(ServerObject, MayBeDestroyedByAMethodWhoseCallerGetsTheResult) {
    RawPeer peer(group());
    auto const watcher = makePermitted<Watcher>("watcher");
    auto object = makePermitted<Gauge>("gauge");
    permitted([&] {
        object->meanwhile = [&] { object.reset(); };
        object->registerObserver(TreflectObservable::kAfterCalls, gauge::kClass, gauge::kGet,
                                 TreflectObserverClient(watcher.get()));
    });
    call(peer, object->getInternalOID(), gauge::kClass, gauge::kGet);
    EXPECT_EQ(answerOf(peer), wire::kEmptyContainer + wire::number(1));
    permitted([&] { EXPECT_TRUE(watcher->told.empty()); });
}

TEST_F(ServerObject, IsBuiltAlsoWhenItsParentGoesMeanwhile) {
    auto peer = std::make_unique<RawPeer>(group());
    TreflectObject const parent = permitted([&] { return objectOf(*peer, 7); });
    Permitted<Node> node;
    std::thread builder([&] { node = makePermitted<Node>("node", &parent); });
    wire::awaitCall(*peer, 1106);
    peer.reset();
    builder.join();
    permitted([&] { EXPECT_EQ(node->getAbsName(), "/node"); });
}

TEST_F(ServerObject, IsNotCalledOnceItsDestructionHasBegun) {
    RawPeer peer(group(), wire::answeringAllBut({0, 1107}));
    Permitted<Gauge> object;
    permitted([&] {
        TreflectObject const parent = objectOf(peer, 7);
        object = makePermitted<Gauge>("gauge", &parent);
        auto const observer = wire::handleFrom<TreflectObserverClient>(
            wire::handle(9, orb().convertId(peer.termId())));
        object->registerObserver(TreflectObservable::kBeforeCalls, gauge::kClass, gauge::kSet,
                                 observer);
    });
    call(peer, object->getInternalOID(), gauge::kClass, gauge::kSet, "00000005");
    TreflectMessage const asked = wire::awaitCall(peer, 0);
    std::thread destroyer([&] { object.reset(); });
    TreflectMessage const leaving = wire::awaitCall(peer, 1107);
    wire::answer(peer, asked, wire::kEmptyContainer + wire::bare("00000001 00000001"));
    EXPECT_EQ(answerOf(peer), wire::kNotServed);
    wire::answer(peer, leaving, wire::kEmptyContainer);
    destroyer.join();
}

TEST_F(ServerObject, MayOutlastItsBrokerWhileItLeavesItsParent) {
    RawPeer peer(group(), wire::answeringAllBut({1107}));
    auto node = nodeBelow(peer);
    std::thread destroyer([&] { node.reset(); });
    wire::awaitCall(peer, 1107);
    TreflectORB::prepareForDeletion();
    destroyer.join();
}

/** A request whose reading looks for an object, and its target goes meanwhile. */
class LateTarget : public ServerObject, public testing::WithParamInterface<unsigned int> {};

TEST_P(LateTarget, IsNotTouchedAnyMore) {
    TreflectObject const absent = permitted([] { return TreflectObject(oid("nobody")); });
    RawPeer peer(group());
    auto target = makePermitted<Watcher>("target");
    std::string const unknown = wire::handle("nobody");
    std::map<unsigned int, std::string> const arguments{
        {0, unknown + wire::bare("00000001 00000002 00000000")},
        {1000, wire::bare("00000000 00000001 00000002") + unknown},
        {1001, unknown},
        {1104, wire::text("child")},
        {1106, wire::text("child") + unknown}};
    unsigned int const mc = GetParam();
    if (mc == 1104)
        permitted([&] { target->registerChild("child", absent); });
    call(peer, target->getInternalOID(), TreflectObserverSkeleton::kClassId, mc, arguments.at(mc));
    TreflectMessage const search = wire::awaitSearch(peer);
    target.reset();
    wire::answer(peer, search, "00000000");
    std::string const expected =
        mc == 0 ? wire::kEmptyContainer + wire::bare("00000000 00000000") : wire::kNotServed;
    EXPECT_EQ(answerOf(peer), expected);
}

INSTANTIATE_TEST_SUITE_P(Requests, LateTarget, testing::Values(0u, 1000u, 1001u, 1104u, 1106u));

}  // namespace
