// Every byte of the calls that all reflective objects serve, and of the notifications of observers:
// a peer writes and reads them by hand.
#include "BrokerTest.h"
#include "Gauge.h"
#include "RawPeer.h"

namespace {

using wire::bare;
using wire::number;
using wire::text;

constexpr unsigned int kObserverClass = 0x641E8FCD;
constexpr unsigned int kFar = 0xFA2;  // internal id of the peer's object

class ReflectiveWire : public BrokerTest {
protected:
    TreflectOrbId peerId() { return orb().convertId(peer_.termId()); }
    /** A named object of this process, as it is encoded. */
    std::string form(TreflectServerObject const& object, std::string const& name) {
        return wire::handle(name, object.getInternalOID(), orb().orbId().value());
    }
    /** What an object of this process answers to a call of the peer. */
    std::string ask(TreflectServerObject const& object, unsigned int cc, unsigned int mc,
                    std::string const& arguments = "") {
        unsigned int const id = ++lastId_;
        peer_.sendCall(broker(), id, object.getInternalOID(), true, cc, int(mc), arguments);
        return wire::data(wire::awaitResponse(peer_, id));
    }
    std::string ask(unsigned int mc, std::string const& arguments = "") {
        return ask(*gauge_, 0, mc, arguments);
    }
    /** An object of the peer, which answers `results` to the calls that come. */
    TreflectObject far(std::string const& results) {
        answerWith(results);
        return wire::handleFrom(wire::handle(kFar, peerId()));
    }
    /** What the peer answers to the calls that come from now on. */
    void answerWith(std::string const& results) {
        std::lock_guard<std::mutex> const lock(mutex_);
        results_ = results;
    }
    std::string results() {
        std::lock_guard<std::mutex> const lock(mutex_);
        return results_;
    }
    /** The next call that came; it is noted behind its answer. */
    std::string nextCall() {
        for (;;) {
            TreflectMessage const message = peer_.await(next_++);
            if (message.empty() || wire::callOf(message).mc != 0xFFFFFFFF)
                return wire::data(message);
        }
    }
    static std::string call(unsigned int cc, unsigned int mc, std::string const& arguments = "") {
        return number(kFar) + number(1) + number(cc) + number(mc) + arguments;
    }

    std::string const ok_ = wire::kEmptyContainer;
    std::mutex mutex_;
    std::string results_;  // guarded by mutex_
    RawPeer peer_{group(), [this](RawPeer& self, TreflectMessage& message) {
                      if (message.type() == TreflectMessage::tResolve)
                          wire::answer(self, message, number(0));
                      else if (wire::callOf(message).mc != 0xFFFFFFFF)
                          wire::answer(self, message, results());
                  }};
    Permitted<Gauge> const gauge_ = makePermitted<Gauge>("gauge");
    Permitted<Node> const child_ = permitted([this] {
        TreflectObject const parent(gauge_.get());
        return makePermitted<Node>("child identifier", "child", &parent);
    });
    Permitted<Watcher> watcher_ = makePermitted<Watcher>("watcher");
    unsigned int lastId_ = 0xCA110000;
    std::size_t next_ = 0;  // of the messages that came
};

// ---- What an object answers --------------------------------------------------------------------

TEST_F(ReflectiveWire, NamesAreTextsParentsAndChildrenHandlesAndClassesIds) {
    EXPECT_EQ(ask(1101), ok_ + text("gauge"));
    EXPECT_EQ(ask(*child_, 0, 1100), ok_ + text("/gauge/child"));
    EXPECT_EQ(ask(*child_, 0xFFFFFFFF, 1101), ok_ + text("child")) << "whatever the class code";
    EXPECT_EQ(ask(1108), ok_ + number(1) + number(gauge::kClass));
    EXPECT_EQ(ask(*child_, 0, 1108), ok_ + number(0));
    EXPECT_EQ(ask(*watcher_, 0, 1108), ok_ + number(1) + number(kObserverClass));
    std::string const nobody = wire::handle("InvalidStub", 0, 0);
    EXPECT_EQ(ask(*child_, 0, 1103), ok_ + form(*gauge_, "gauge"));
    EXPECT_EQ(ask(1103), ok_ + nobody);
    EXPECT_EQ(ask(1104, text("child")), ok_ + form(*child_, "child identifier"));
    EXPECT_EQ(ask(1104, text("Child")), ok_ + nobody);
    EXPECT_EQ(ask(1105), ok_ + number(1) + form(*child_, "child identifier"));
    EXPECT_EQ(ask(*child_, 0, 1105), ok_ + number(0));
    std::string const stranger = wire::handle(7, peerId());
    EXPECT_EQ(ask(1106, text("a stranger") + stranger), ok_);
    EXPECT_EQ(ask(1105), ok_ + number(2) + stranger + form(*child_, "child identifier"));
    EXPECT_EQ(ask(1106, text("child") + stranger), ok_);
    EXPECT_EQ(ask(1107, text("a stranger")), ok_);
    EXPECT_EQ(ask(1107, text("nobody")), ok_);
    EXPECT_EQ(ask(1105), ok_ + number(1) + stranger);
}

TEST_F(ReflectiveWire, OtherCodesFailAndStandardOnesStartWithTheContainerOfTheObject) {
    EXPECT_EQ(ask(1102), wire::kNotServed);
    EXPECT_EQ(ask(999), wire::kNotServed);
    EXPECT_EQ(ask(*watcher_, kObserverClass, 1), wire::kNotServed);
    EXPECT_EQ(ask(*watcher_, 0xABC, 0), wire::kNotServed);
    for (std::string const code : {"(cc=0x641E8FCD, mc=1)", "(cc=0x00000ABC, mc=0)"})
        EXPECT_EQ(log_.count(3, "TreflectObserverSkeleton[oid=watcher]::dispatch" + code +
                                    " - METHOD NOT FOUND"),
                  1u);
    EXPECT_EQ(log_.find("NOT FOUND")->source, "REFLECT_ObserverSkeleton");
    std::string const container = bare("00000007 00000002 ABCD");
    EXPECT_EQ(ask(2100, container), container);
    EXPECT_EQ(ask(1101), container + text("gauge"));
    EXPECT_EQ(ask(1107, text("nobody")), container);
}

TEST_F(ReflectiveWire, CallThatIsForbiddenIsAnsweredWithAnException) {
    permitted([&] {
        gauge_->registerObserver(0, gauge::kClass, gauge::kSet, *watcher_->getClient());
        watcher_->answer = false;
    });
    EXPECT_EQ(ask(*gauge_, gauge::kClass, gauge::kSet, number(5)),
              bare("00000001 00000004 FFFFFFFE"));
    permitted([&] { watcher_->answer = true; });
    EXPECT_EQ(ask(*gauge_, gauge::kClass, gauge::kSet, number(5)), ok_);
    EXPECT_EQ(permitted([&] { return gauge_->value; }), 5u);
}

// ---- What an object is asked -------------------------------------------------------------------

TEST_F(ReflectiveWire, HandleAsksForNamesClassesParentAndChildren) {
    permitted([&] {
        EXPECT_EQ(far(ok_ + text("the name")).getRelName(), "the name");
        EXPECT_EQ(nextCall(), call(0, 1101));
        EXPECT_EQ(far(ok_ + text("/the/name")).getAbsName(), "/the/name");
        EXPECT_EQ(nextCall(), call(0, 1100));
        EXPECT_EQ(far(ok_ + number(2) + number(0xDEAD0001) + number(gauge::kClass)).meta(),
                  &Gauge::metaClass());
        EXPECT_EQ(nextCall(), call(0, 1108));
        std::string const another = wire::handle(7, peerId());
        EXPECT_EQ(far(ok_ + another).getParent(), wire::handleFrom(another));
        EXPECT_EQ(nextCall(), call(0, 1103));
        EXPECT_EQ(far(ok_ + form(*child_, "child identifier")).getChild("c"),
                  TreflectObject(child_.get()));
        EXPECT_EQ(nextCall(), call(0, 1104, text("c")));
        TipprmiSequence<TreflectObject, 0u> const children =
            far(ok_ + number(2) + another + form(*child_, "child identifier")).getChilds();
        EXPECT_EQ(nextCall(), call(0, 1105));
        ASSERT_EQ(children.getLength(), 2u);
        EXPECT_EQ(children[0], wire::handleFrom(another));
        EXPECT_EQ(children[1], TreflectObject(child_.get()));
        far(ok_).registerChild("c", TreflectObject(child_.get()));
        EXPECT_EQ(nextCall(), call(0, 1106, text("c") + form(*child_, "child identifier")));
        far(ok_).unregisterChild("c");
        EXPECT_EQ(nextCall(), call(0, 1107, text("c")));
    });
    EXPECT_EQ(log_.count("Unmarshall error"), 0u);
}

TEST_F(ReflectiveWire, HandleRegistersAndRemovesObservers) {
    permitted([&] {
        TreflectObject const object = far(ok_);
        std::string const observer = form(*watcher_, "watcher");
        TreflectMetaOperation const* const set =
            TreflectObject(gauge_.get()).operation("setValue").meta();
        for (unsigned int const kind : {0u, 0x80000000u}) {
            object.registerObserver(kind, set, watcher_.get());
            EXPECT_EQ(nextCall(),
                      call(0, 1000,
                           number(kind) + number(gauge::kClass) + number(gauge::kSet) + observer));
        }
        object.removeObserver(set, watcher_.get());
        EXPECT_EQ(nextCall(), call(0, 1001, observer));
    });
    EXPECT_EQ(log_.count("Unmarshall error"), 0u);
}

TEST_F(ReflectiveWire, HandleReadsAttributesUnderTheClassThatHasThem) {
    permitted([&] {
        std::string const another = wire::handle(7, peerId());
        TreflectMetaOperation const get("getNext", &deviceMeta, 9);
        TreflectMetaAttribute const next("Next", &Gauge::metaClass(), &get, nullptr);
        TreflectObject const object = far("");
        TreflectAttribute const& attribute = *next.getTied(&object);
        TreflectObject found;
        unsigned int length = 0;
        answerWith(ok_ + another);
        EXPECT_EQ(attribute.get(found), 0);
        EXPECT_EQ(nextCall(), call(gauge::kClass, 9));
        EXPECT_EQ(found, wire::handleFrom(another));
        answerWith(bare("00000001 00000004 0000002A") + another);
        EXPECT_EQ(attribute.get(found), 0);
        EXPECT_FALSE(found.isConnected());
        EXPECT_EQ(attribute.fetch<TreflectObject>().code(), 42u);
        // Results may stand behind an exception of a type of the object's own.
        answerWith(bare("00000007 00000000") + another);
        EXPECT_EQ(attribute.get(found), 0);
        EXPECT_EQ(found, wire::handleFrom(another));
        EXPECT_EQ(attribute.get(length), TreflectAttribute::error);
        EXPECT_FALSE(attribute.fetch<TreflectObject>());
    });
}

TEST_F(ReflectiveWire, HandleTakesDefaultsOfAnswersThatBreakOff) {
    std::string const bad[]{"",
                            bare("00000000"),
                            ok_,
                            bare("00000001 00000004 0000002A"),
                            ok_ + bare("0000"),
                            ok_ + bare("7FFFFFFF 0000")};
    for (std::string const& answer : bad) {
        log_.clear();
        TreflectHandlerState const handlerState(true);
        EXPECT_EQ(far(answer).getRelName(), "");
        EXPECT_EQ(far(answer).getAbsName(), "");
        EXPECT_FALSE(far(answer).getParent().isConnected());
        EXPECT_FALSE(far(answer).getChild("c").isConnected());
        EXPECT_EQ(far(answer).getChilds().getLength(), 0u);
        EXPECT_EQ(far(answer).meta(), nullptr);
        for (unsigned int const mc : {1101, 1100, 1103, 1104, 1105, 1108})
            EXPECT_EQ(log_.count(4, "Unmarshall error on cc=0x0, mc=" + std::to_string(mc)), 1u)
                << mc << " " << answer;
        far(answer).registerChild("c", TreflectObject());
        far(answer).unregisterChild("c");
        EXPECT_EQ(log_.count("Unmarshall error"), 6u) << "nobody reads what they answer";
    }
}

TEST_F(ReflectiveWire, ExceptionContainerPairIsReportedUnderOneCodeWhenItsAnswerBreaksOff) {
    permitted([&] {
        TreflectObject const object = far(number(1));
        TreflectObjectStub const& stub = *object.getStub_();
        stub.setExceptionContainer(TipprmiExceptionContainer());
        EXPECT_EQ(log_.count(4, "Unmarshall error on cc=0x0, mc=2101"), 1u);
        stub.getExceptionContainer();
        EXPECT_EQ(log_.count(4, "Unmarshall error on cc=0x0, mc=2101"), 2u);
    });
}

TEST_F(ReflectiveWire, HandlesOfASequenceAreLookedForOnceEach) {
    permitted([&] {
        std::string const absent = wire::handle("nobody");
        TreflectObject const object = far(ok_ + number(3) + absent + absent + absent);
        EXPECT_EQ(object.getChilds().getLength(), 3u);
        object.getRelName();  // the peer answers it when all before it has been noted
    });
    std::size_t searches = 0;
    for (std::size_t i = 0; i < peer_.count(); ++i)
        searches += peer_.await(i).type() == TreflectMessage::tResolve ? 1 : 0;
    EXPECT_EQ(searches, 3u);
}

TEST_F(ReflectiveWire, StubOutlastsItsLastHandleWhileItsContainerIsAskedFor) {
    for (bool const sets : {true, false}) {
        auto handle = makePermitted<TreflectObject>(oid("absent"));
        RawPeer searched(group());
        std::thread asking([&] {
            TreflectHandlerState const handlerState(true);
            TreflectObjectStub const& stub = *handle->getStub_();
            sets ? stub.setExceptionContainer({}) : static_cast<void>(stub.getExceptionContainer());
        });
        TreflectMessage const search = wire::awaitSearch(searched);
        handle.reset();
        wire::answer(searched, search, number(0));
        asking.join();
        EXPECT_EQ(log_.count("dispatch(this=0x"), 1u);
        log_.clear();
    }
}

// ---- Notifications -----------------------------------------------------------------------------

TEST_F(ReflectiveWire, ObserverIsToldSourceOperationAndValues) {
    std::string const observer = wire::handle(kFar, peerId());
    std::string const ofSet = number(gauge::kClass) + number(gauge::kSet);
    std::string const ofGet = number(gauge::kClass) + number(gauge::kGet);
    std::string const source = form(*gauge_, "gauge");
    std::string const five = bare("00000001 00000004 00000005");
    EXPECT_EQ(ask(1000, number(0) + ofSet + observer), ok_);
    EXPECT_EQ(ask(1000, number(9) + ofGet + observer), ok_);
    permitted([&] {
        GaugeClient const client(gauge_.get());
        answerWith(ok_ + bare("00000001 00000001"));
        EXPECT_TRUE(client.set(5));
        EXPECT_EQ(nextCall(), call(kObserverClass, 0, source + ofSet + five));
        EXPECT_EQ(client.get().value(), 5u);
        EXPECT_EQ(nextCall(), call(kObserverClass, 0, source + ofGet + five));
        answerWith(ok_ + bare("00000000 00000001"));
        EXPECT_EQ(client.set(6).code(), TipprmiFailure::kVetoed);
        EXPECT_EQ(gauge_->value, 5u);
        EXPECT_EQ(client.get().value(), 5u) << "an answer after a call is of no account";
        answerWith(ok_ + bare("00000000 00000000"));
        EXPECT_TRUE(client.set(6)) << "not reached, whatever it answers";
        EXPECT_FALSE(gauge_->preObserverAvailable(gauge::kClass, gauge::kSet));
        EXPECT_FALSE(gauge_->postObserverAvailable(gauge::kClass, gauge::kGet));
    });
    EXPECT_EQ(log_.count("Unmarshall error"), 0u);
    // Removed in words.
    EXPECT_EQ(ask(1000, number(0) + ofSet + observer), ok_);
    EXPECT_EQ(ask(1001, observer), ok_);
    EXPECT_EQ(ask(1001, observer), ok_);
    permitted([&] { EXPECT_FALSE(gauge_->preObserverAvailable(gauge::kClass, gauge::kSet)); });
}

TEST_F(ReflectiveWire, ObserversOfOneProcessAreBoundedAndThoseThatHaveGoneForgotten) {
    std::string const ofSet = number(0) + number(gauge::kClass) + number(gauge::kSet);
    std::string const observer = wire::handle(kFar, peerId());
    TreflectOrbId const gone(peerId().value() + 2);
    TreflectOrbId const nobody(peerId().value() + 3);
    for (int i = 0; i < 150; ++i)
        for (TreflectOrbId const broker : {gone, nobody})
            ASSERT_EQ(ask(1000, ofSet + wire::handle(kFar, broker)), ok_);
    permitted([&] { TreflectObjectHandler::getInstance()->invalidateStubs(gone); });
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(ask(1000, ofSet + observer), ok_);
    EXPECT_EQ(permitted([&] { return gauge_->observations_().size(); }), 1024u);
    EXPECT_EQ(ask(1000, ofSet + observer), wire::kNotServed);
    EXPECT_TRUE(log_.contains("is refused: it has 1024 at the object already"));
    EXPECT_EQ(ask(1000, ofSet + wire::handle(kFar, TreflectOrbId(peerId().value() + 1))),
              wire::kNotServed)
        << "in whosever name";
    EXPECT_EQ(ask(1001, observer), ok_);
    EXPECT_EQ(ask(1000, ofSet + observer), ok_);
}

TEST_F(ReflectiveWire, ObserverWhoseAnswerCannotBeReadWasNotReached) {
    std::string const answers[]{"",
                                ok_,
                                ok_ + number(0),
                                ok_ + bare("00000000 0000"),
                                bare("00000001 00000004 00000000"),
                                bare("0000")};
    for (std::string const& answer : answers) {
        log_.clear();
        TreflectHandlerState const handlerState(true);
        gauge_->registerObserver(
            0, gauge::kClass, gauge::kSet,
            wire::handleFrom<TreflectObserverClient>(wire::handle(kFar, peerId())));
        answerWith(answer);
        EXPECT_TRUE(GaugeClient(gauge_.get()).set(5)) << answer;
        EXPECT_FALSE(gauge_->preObserverAvailable(gauge::kClass, gauge::kSet)) << answer;
        EXPECT_EQ(log_.count(4, "Unmarshall error on cc=0x641E8FCD, mc=0"), 1u) << answer;
    }
}

TEST_F(ReflectiveWire, NotificationIsAnsweredWithWhatTheObserverSays) {
    // The source has a name of the peer's, so that asking for it stays with the peer.
    answerWith(ok_ + text("far away"));
    std::string sourceName;
    permitted([&] { watcher_->react = [&] { sourceName = watcher_->getSource()->getRelName(); }; });
    std::string const source = wire::handle(kFar, peerId());
    std::string const body =
        source + number(3) + number(4) + bare("00000002 00000004 00000005 00000004 00000006");
    EXPECT_EQ(ask(*watcher_, kObserverClass, 0, body), ok_ + bare("00000001 00000001"));
    permitted([&] {
        EXPECT_EQ(watcher_->told.size(), 1u);
        EXPECT_EQ(watcher_->values, (std::vector<unsigned int>{5, 6}));
        EXPECT_EQ(sourceName, "far away");
        watcher_->react = {};
        watcher_->answer = false;
    });
    EXPECT_EQ(ask(*watcher_, kObserverClass, 0, body), ok_ + bare("00000000 00000001"));
    permitted([&] { watcher_->react = [&] { watcher_.reset(); }; });
    EXPECT_EQ(ask(*watcher_, kObserverClass, 0, body), ok_ + bare("00000001 00000001"));
}

// ---- Requests that make no sense ---------------------------------------------------------------

TEST_F(ReflectiveWire, RequestsThatBreakOffAreAnsweredAndLoggedByTheStream) {
    struct {
        unsigned int mc;
        std::string arguments;
    } const cases[]{{1000, ""},
                    {1000, number(0) + number(gauge::kClass) + number(gauge::kSet)},
                    {1000, number(0) + number(gauge::kClass) + number(gauge::kSet) + number(5)},
                    {1001, ""},
                    {1001, bare("7FFFFFFF 00000001")},
                    {1104, ""},
                    {1104, bare("00000003 6162")},
                    {1106, ""},
                    {1106, text("child")},
                    {1106, text("child") + bare("7FFFFFFF")},
                    {1107, ""},
                    {1107, bare("00100000 6162")}};
    for (auto const& [mc, arguments] : cases) {
        log_.clear();
        std::string const answer = ask(mc, arguments);
        EXPECT_EQ(answer.substr(0, 16), ok_) << mc << " " << arguments;
        EXPECT_EQ(log_.count(3, "::unmarshall() request out of bounds"), 1u)
            << mc << " " << arguments;
        EXPECT_EQ(log_.count("Unmarshall error"), 0u) << mc << " " << arguments;
    }
    // Texts of negative length are empty.
    EXPECT_EQ(ask(1107, bare("80000000")), ok_);
    // Whoever was registered so forbids nothing.
    permitted([&] { EXPECT_TRUE(GaugeClient(gauge_.get()).set(5)); });
    EXPECT_EQ(ask(1101), ok_ + text("gauge"));
}

TEST_F(ReflectiveWire, NotificationsThatBreakOffAreAnsweredAndLogged) {
    answerWith(ok_ + text("far away"));
    std::string const head = wire::handle(kFar, peerId()) + number(3) + number(4);
    std::string const cases[]{head,
                              head + bare("FFFFFFFF"),
                              head + bare("00010001 00000004 00000005"),
                              head + bare("00000002 00000004 00000005"),
                              head + bare("00000001 7FFFFFFF 00000005"),
                              wire::handle(kFar, peerId()) + number(3)};
    for (std::string const& body : cases) {
        log_.clear();
        EXPECT_EQ(ask(*watcher_, kObserverClass, 0, body), ok_ + bare("00000001 00000001")) << body;
        EXPECT_EQ(log_.count(4, "Unmarshall error on cc=0x641E8FCD, mc=0"), 1u) << body;
    }
}

}  // namespace
