// What the tests of notices share: observers and objects of their own process, and another broker
// that is played by hand.
#pragma once

#include <deque>
#include <list>
#include <map>
#include <thread>

#include "BrokerListener.h"
#include "BrokerTest.h"
#include "Permitted.h"
#include "RawPeer.h"
#include "ReflectActor.h"
#include "Thing.h"
#include "Watcher.h"

constexpr unsigned int kLampClass = 0x7001;
using Names = std::vector<std::string>;

/** Another broker, which subscribes here and is asked. It serves the class of lamps, and answers at
 * once what it does not hold. */
class Neighbour {
public:
    using Type = TreflectMessage::type_t;
    /** Whether a request is held until the test has it answered. */
    using Holds = std::function<bool(TreflectMessage const&)>;

    explicit Neighbour(Transport::GroupId group, Holds holds = {})
        : holds_(std::move(holds)), peer_(group, [this](RawPeer&, TreflectMessage& message) {
              if (message.kind() != TreflectMessage::kRequest)
                  return;
              std::lock_guard<std::mutex> const lock(mutex_);
              if (holds_ && holds_(message))
                  held_.push_back(message);
              else
                  answer(message);
          }) {}

    static Holds first(int count) {
        return [count](auto&) mutable { return count-- > 0; };
    }
    static Holds each(Type type) {
        return [type](TreflectMessage const& message) { return message.type() == type; };
    }

    Transport::TerminationId termId() const { return peer_.termId(); }
    /** Waits until a request is held. */
    void awaitHeld() {
        EXPECT_TRUE(testsupport::eventually([this] {
            std::lock_guard<std::mutex> const lock(mutex_);
            return !held_.empty();
        }));
    }
    /** Answers the oldest of them. */
    void answerHeld() {
        awaitHeld();
        std::lock_guard<std::mutex> const lock(mutex_);
        answer(held_.front());
        held_.pop_front();
    }
    TreflectMessage await(Type type, TreflectMessage::kind_t kind) {
        return wire::awaitWhere(peer_, [&](TreflectMessage const& message) {
            return message.type() == type && message.kind() == kind;
        });
    }
    void subscribe(Transport::TerminationId broker, Type type) {
        request(broker, type, type == TreflectMessage::tOCNSubscribe ? "00000000" : "");
        EXPECT_FALSE(await(type, TreflectMessage::kResponse).empty());
    }
    /** Tells that one of its objects, given as it is encoded, has been created. */
    void create(Transport::TerminationId broker, std::string const& object) {
        request(broker, TreflectMessage::tOCN, object);
    }
    /** Likewise, deleted. */
    void destroy(Transport::TerminationId broker, std::string const& object) {
        request(broker, TreflectMessage::tODN, object);
    }
    /** The objects, as they are encoded, that it says exist from now on. */
    void list(Names const& objects) {
        std::lock_guard<std::mutex> const lock(mutex_);
        list_ = wire::number(static_cast<unsigned int>(objects.size()));
        for (std::string const& object : objects)
            list_ += object;
    }
    /** How many requests of a type came, or only those of one broker. */
    std::size_t count(Type type, Transport::TerminationId of = {}) {
        std::size_t number = 0;
        for (TreflectMessage const& message : requests())
            number += message.type() == type && (of.value() == 0 || message.originator() == of);
        return number;
    }
    /** The notices that it got, in their order: a plus for a creation, a minus for a deletion. */
    std::string notices() {
        std::string signs;
        for (TreflectMessage const& message : requests())
            signs += message.type() == TreflectMessage::tOCN   ? "+"
                     : message.type() == TreflectMessage::tODN ? "-"
                                                               : "";
        return signs;
    }

private:
    std::vector<TreflectMessage> requests() {
        std::vector<TreflectMessage> all;
        for (std::size_t i = 0; i < peer_.count(); ++i) {
            if (peer_.await(i).kind() == TreflectMessage::kRequest)
                all.push_back(peer_.await(i));
        }
        return all;
    }
    void request(Transport::TerminationId broker, Type type, std::string const& data) {
        TipprmiStream request(peer_.make(++lastId_, type, TreflectMessage::kRequest), true);
        request << kLampClass;
        wire::write(request, data);
        peer_.send(broker, request.msg());
    }
    void answer(TreflectMessage const& request) {
        bool const wantsList = request.type() == TreflectMessage::tOCNSubscribe;
        wire::answer(peer_, request, (wantsList ? list_ : "") + "0000000100007001");
    }

    Holds const holds_;
    std::mutex mutex_;
    std::string list_ = wire::number(0);  // guarded by mutex_
    std::deque<TreflectMessage> held_;    // guarded by mutex_
    unsigned int lastId_ = 0x100;
    RawPeer peer_;  // ends first
};

/** The tests' own broker knows the class of lamps. */
class NoticeTest : public BrokerTest {
protected:
    NoticeTest() : broker_(orb().termId()) {
        permitted([] { thingClass(kLampClass); });
    }
    ~NoticeTest() override {
        permitted([this] {
            things_.clear();
            watchers_.clear();
        });
    }

    // ---- Observers
    Watcher& watcher(Watcher::Reaction reaction = {}) {
        return permitted([&]() -> Watcher& {
            watchers_.push_back(std::make_unique<Watcher>("watcher", std::move(reaction)));
            return *watchers_.back();
        });
    }
    Watcher& creations(bool plusExisting = false, Watcher::Reaction reaction = {}) {
        Watcher& one = watcher(std::move(reaction));
        observe(one, plusExisting);
        return one;
    }
    Watcher& deletions(Watcher::Reaction reaction = {}) {
        Watcher& one = watcher(std::move(reaction));
        observeDeletions(one);
        return one;
    }
    static void observe(Watcher& one, bool plusExisting = false) {
        permitted([&] { EXPECT_TRUE(lamps().observeCreations(&one, plusExisting)); });
    }
    static void observeDeletions(Watcher& one) {
        permitted([&] { EXPECT_TRUE(lamps().observeDeletions(&one)); });
    }
    static void remove(Watcher& one) {
        permitted([&] { lamps().removeObserver(&one); });
    }
    /** Destroys it. */
    void discard(Watcher& one) {
        permitted(
            [&] { watchers_.remove_if([&](auto const& each) { return each.get() == &one; }); });
    }
    static Names told(Watcher& one) {
        return permitted([&] { return one.told; });
    }
    static bool awaitTold(Watcher& one, Names const& names) {
        return testsupport::eventually([&] { return told(one) == names; });
    }

    // ---- Objects
    void make(std::string const& name) {
        permitted([&] { things_[name] = std::make_unique<Thing>(name, kLampClass); });
    }
    void come(std::string const& name) {
        permitted([&] { things_.at(name)->come(); });
    }
    void go(std::string const& name) {
        permitted([&] { things_.at(name)->go(); });
    }
    void create(std::string const& name) {
        make(name);
        come(name);
    }
    void destroy(std::string const& name) {
        go(name);
        permitted([&] { things_.erase(name); });
    }

    // ---- Neighbours
    /** One that has been caught up with. */
    std::unique_ptr<Neighbour> arrived(Neighbour::Holds holds = {}) {
        ArrivalWatch arrivals(orb());
        auto one = std::make_unique<Neighbour>(group(), std::move(holds));
        EXPECT_TRUE(arrivals.await(one->termId()));
        return one;
    }
    /** An object of a neighbour, as it is encoded. */
    std::string object(std::string const& name, Neighbour const& neighbour, unsigned int ioid = 7) {
        return wire::handle(name, ioid, orb().convertId(neighbour.termId()).value());
    }

    static TreflectMetaObject& lamps() { return thingClass(kLampClass); }

    Transport::TerminationId const broker_;
    std::list<std::unique_ptr<Watcher>> watchers_;          // guarded by the run permission
    std::map<std::string, std::unique_ptr<Thing>> things_;  // likewise
};
