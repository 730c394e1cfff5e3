// Every byte of subscriptions, cancellations and notices: the test plays the other broker with
// messages that it writes and reads by hand, and has no broker itself.
#include "RawPeer.h"
#include "ReflectActor.h"

namespace {

using wire::handle;
using wire::spaced;

std::string const kLampClass = "00007001";
std::string const kRadioClass = "00007002";

class NotificationWireTest : public testing::Test {
protected:
    NotificationWireTest() {
        peer_ = std::make_unique<RawPeer>(Transport::GroupId{1});
        listening_ = peer_.get();
        actor_ = std::make_unique<ReflectActor>();
        lamp_ = actor_->create("lamp", "7001");
    }
    ~NotificationWireTest() override { actor_->finish(); }

    void send(std::string const& type, std::string const& data) {
        std::string const message = "0A0B0C0D" + type + "00000002" + wire::stream(data);
        ASSERT_EQ(peer_->send(lamp_.termination, message), 1);
    }
    /** Type, kind and data of the next message. */
    std::string receive() {
        last_ = listening_->await(received_++);
        EXPECT_EQ(last_.originator().value(), lamp_.termination);
        std::string const all = wire::whole(last_);
        return all.size() < 35 ? all : all.substr(9, 17) + all.substr(35);
    }
    std::string exchange(std::string const& type, std::string const& data) {
        send(type, data);
        std::string const answer = receive();
        EXPECT_EQ(last_.transactionId(), 0x0A0B0C0Du);
        EXPECT_EQ(last_.size(), 104u) << "the room that an answer starts with";
        return answer;
    }
    /** Answers the last message that was received. */
    void answer(std::string const& data = "") { wire::answer(*listening_, last_, data); }
    /** Has another peer receive and answer from now on. */
    void listenAt(RawPeer& other) {
        listening_ = &other;
        received_ = 0;
    }
    /** Has an observer registered, and answers the subscription with what exists and with ids. */
    std::string observe(std::string const& command, std::string const& answerDigits) {
        actor_->tell("watch " + command);
        std::string const subscription = receive();
        EXPECT_EQ(last_.size(), 100u) << "the room that a request starts with";
        answer(answerDigits);
        actor_->await("watching");
        return subscription;
    }
    void refuse() {
        TreflectMessage failure =
            peer_->make(last_.transactionId(), last_.type(), TreflectMessage::kNoDestination);
        peer_->send(lamp_.termination, failure);
    }
    /** The class ids that the actor's process knows, as it answers them. */
    std::string classes() {
        std::string const answer = exchange("00000006", kRadioClass);
        exchange("00000008", kRadioClass);
        return answer.substr(18);
    }

    std::unique_ptr<RawPeer> peer_;
    RawPeer* listening_ = nullptr;
    std::unique_ptr<ReflectActor> actor_;
    ReflectActor::Made lamp_;
    TreflectMessage last_{Transport::AddressedMessage()};
    std::size_t received_ = 0;
};

TEST_F(NotificationWireTest, subscriptionIsAnsweredWithWhatExistsAndTheClassesOfTheProcess) {
    std::string const ids = classes();
    EXPECT_NE(ids.find(kLampClass), std::string::npos);
    EXPECT_EQ(ids.find(kRadioClass), std::string::npos) << "observed by others only";
    EXPECT_EQ(
        exchange("00000005", kLampClass + "00000001"),
        spaced("00000005 00000003 00000001" + handle("lamp", lamp_.ioid, lamp_.broker) + ids));
    EXPECT_EQ(exchange("00000005", kLampClass + "00000000"),
              spaced("00000005 00000003 00000000" + ids))
        << "existing objects were not asked for";
    EXPECT_EQ(exchange("00000005", kRadioClass + "00000001"),
              spaced("00000005 00000003 00000000" + ids));
    EXPECT_EQ(exchange("00000006", kLampClass), spaced("00000006 00000003" + ids));
    EXPECT_EQ(exchange("00000007", kLampClass), "00000007 00000003");
    EXPECT_EQ(exchange("00000008", kLampClass), "00000008 00000003");
}

TEST_F(NotificationWireTest, noticesNameClassAndObjectAndAwaitAnAnswer) {
    exchange("00000005", kLampClass + "00000000");
    exchange("00000005", kLampClass + "00000000");  // twice the same subscriber
    exchange("00000006", kLampClass);
    actor_->tell("create mast 7001");
    std::string const created = receive();
    EXPECT_EQ(last_.size(), 100u) << "the room that a request starts with";
    answer();
    std::istringstream words(actor_->await("created"));
    unsigned int ioid = 0;
    words >> std::hex >> ioid;
    EXPECT_EQ(created,
              spaced("00000003 00000002" + kLampClass + handle("mast", ioid, lamp_.broker)));
    actor_->tell("destroy mast");
    EXPECT_EQ(receive(),
              spaced("00000004 00000002" + kLampClass + handle("mast", ioid, lamp_.broker)));
    answer();
    actor_->await("destroyed");
    EXPECT_EQ(peer_->count(), received_);
}

TEST_F(NotificationWireTest, cancellationOfOneKindEndsBoth) {
    for (std::string const cancellation : {"00000007", "00000008"}) {
        exchange("00000005", kLampClass + "00000000");
        exchange("00000006", kLampClass);
        exchange("00000006", kRadioClass);
        exchange(cancellation, kLampClass);
        actor_->create("mast", "7001");
        actor_->destroy("mast");
        actor_->create("horn", "7002");
        actor_->tell("destroy horn");
        EXPECT_EQ(receive().substr(0, 26), "00000004 00000002 00007002") << "another class";
        answer();
        actor_->await("destroyed");
        EXPECT_EQ(peer_->count(), received_);
        exchange("00000007", kRadioClass);
    }
}

// A broker may name any number of classes: what nobody here knows is bounded, and counts as soon as
// there is an object of it.
TEST_F(NotificationWireTest, subscriptionsToUnknownClassesAreBoundedAndCountLater) {
    auto const unknown = [](unsigned int number) {
        char digits[9];
        std::snprintf(digits, sizeof digits, "%08X", 0x70000 + number);
        return std::string(digits);
    };
    for (unsigned int number = 0; number < 1024; ++number)
        exchange("00000005", unknown(number) + "00000000");
    exchange("00000005", unknown(5) + "00000000");  // once more
    exchange("00000005", unknown(1024) + "00000001");
    EXPECT_TRUE(actor_->child().waitForErrorLine(
        "class 0x70400: it has subscribed to 1024 classes that are unknown here"));
    exchange("00000006", unknown(1));
    exchange("00000007", unknown(2));

    actor_->create("pier", "70400");
    actor_->create("raft", "70002");
    actor_->tell("create buoy 70000");
    EXPECT_EQ(receive().substr(0, 26), "00000003 00000002 00070000");
    answer();
    actor_->await("created");
    actor_->tell("create mast 70001");
    EXPECT_EQ(receive().substr(0, 26), "00000003 00000002 00070001");
    answer();
    actor_->await("created");
    actor_->tell("destroy mast");
    EXPECT_EQ(receive().substr(0, 26), "00000004 00000002 00070001");
    answer();
    actor_->await("destroyed");
    EXPECT_EQ(peer_->count(), received_);
}

TEST_F(NotificationWireTest, subscriberThatDoesNotTakeANoticeIsDropped) {
    exchange("00000005", kLampClass + "00000000");
    actor_->tell("create mast 7001");
    receive();
    refuse();
    actor_->await("created");
    actor_->create("boat", "7001");
    EXPECT_EQ(peer_->count(), received_);
}

TEST_F(NotificationWireTest, observersSubscribeOnceAndTheLastOneCancels) {
    EXPECT_EQ(observe("first creations 7001", "00000000 00000001" + kLampClass),
              spaced("00000005 00000002" + kLampClass + "00000000"));
    actor_->watch("second", "creations", "7001");
    EXPECT_EQ(peer_->count(), received_) << "the process is subscribed";

    EXPECT_EQ(observe("first deletions 7001", "00000001" + kLampClass),
              spaced("00000006 00000002" + kLampClass));
    EXPECT_EQ(observe("third existing 7001", "00000000 00000000"),
              spaced("00000005 00000002" + kLampClass + "00000001"));

    actor_->ask("unwatch second 7001", "unwatched");
    EXPECT_EQ(peer_->count(), received_) << "others are left of both kinds";
    actor_->tell("unwatch first 7001");
    EXPECT_EQ(receive(), spaced("00000008 00000002" + kLampClass));
    answer();
    actor_->await("unwatched");
    actor_->tell("unwatch third 7001");
    EXPECT_EQ(receive(), spaced("00000007 00000002" + kLampClass));
    answer();
    EXPECT_EQ(receive(), spaced("00000008 00000002" + kLampClass)) << "of which there is none";
    refuse();
    actor_->await("unwatched");
    char line[60];
    std::snprintf(line, sizeof line, "could not unregister from 0x%X", peer_->termId().value());
    EXPECT_TRUE(actor_->child().waitForErrorLine(line));
    EXPECT_EQ(peer_->count(), received_);
}

TEST_F(NotificationWireTest, brokerThatDoesNotKnowAClassIsNotAskedForIt) {
    observe("first deletions 7001", "00000002 00007001 00007003");
    actor_->watch("first", "creations", "7002");
    actor_->watch("first", "deletions", "7002");
    EXPECT_EQ(peer_->count(), received_);
    actor_->tell("unwatch first 7002");
    EXPECT_EQ(receive(), spaced("00000007 00000002" + kRadioClass)) << "not filtered";
    answer();
    EXPECT_EQ(receive(), spaced("00000008 00000002" + kRadioClass));
    answer();
    actor_->await("unwatched");
    EXPECT_EQ(observe("second deletions 7003", "00000001 00007002"),
              spaced("00000006 00000002 00007003"));
    actor_->watch("first", "deletions", "7002");
    EXPECT_EQ(peer_->count(), received_) << "what is known stays";
}

TEST_F(NotificationWireTest, noticesTellTheObserversBeforeTheyAreAnswered) {
    std::string const far = handle("far", 0xC0FFEE, 0x01010077);
    observe("first existing 7001", "00000001" + far + "00000000");
    EXPECT_EQ(actor_->noticed("first"), "lamp far ");
    EXPECT_EQ(exchange("00000003", kLampClass + handle("near", 0xBEEF, 0x01010077)),
              "00000003 00000003");
    EXPECT_EQ(actor_->noticed("first"), "lamp far near ");
    EXPECT_EQ(exchange("00000004", kLampClass + far), "00000004 00000003");
    EXPECT_EQ(actor_->noticed("first"), "lamp far near ") << "a deletion";
    EXPECT_EQ(exchange("00000003", kRadioClass + far), "00000003 00000003");
    EXPECT_EQ(actor_->noticed("first"), "lamp far near ") << "another class";
}

TEST_F(NotificationWireTest, messagesThatBreakOffAreAnsweredAndIgnored) {
    observe("first creations 7001", "00000000 00000000");
    std::string const ids = classes();
    EXPECT_EQ(exchange("00000003", kLampClass), "00000003 00000003");
    EXPECT_EQ(exchange("00000003", ""), "00000003 00000003");
    EXPECT_EQ(exchange("00000004", kLampClass + "00000003"), "00000004 00000003");
    EXPECT_EQ(exchange("00000005", kLampClass), spaced("00000005 00000003 00000000" + ids));
    EXPECT_EQ(exchange("00000005", ""), spaced("00000005 00000003 00000000" + ids));
    EXPECT_EQ(exchange("00000006", ""), spaced("00000006 00000003" + ids));
    EXPECT_EQ(exchange("00000007", ""), "00000007 00000003");
    EXPECT_EQ(exchange("00000008", ""), "00000008 00000003");
    actor_->create("mast", "7001");
    EXPECT_EQ(actor_->noticed("first"), "mast ");
    EXPECT_EQ(peer_->count(), received_) << "nobody has subscribed";
}

TEST_F(NotificationWireTest, newcomerIsSubscribedAtForAllThatIsObserved) {
    observe("first deletions 7001", "00000001" + kLampClass);
    observe("first creations 7001", "00000000");
    actor_->watch("second", "creations", "7001");
    actor_->watch("second", "creations", "7002");
    actor_->watch("second", "deletions", "7002");
    std::size_t const before = peer_->count();
    RawPeer newcomer(Transport::GroupId{1});
    listenAt(newcomer);
    EXPECT_EQ(receive(), spaced("00000005 00000002" + kLampClass + "00000001"));
    answer("00000002" + handle("far", 7, 0x01010077) + handle("near", 8, 0x01010077) + "00000001" +
           kLampClass);
    EXPECT_EQ(receive(), spaced("00000006 00000002" + kLampClass));
    EXPECT_EQ(actor_->noticed("first"), "far near ");
    EXPECT_EQ(actor_->noticed("second"), "far near ") << "though it did not ask for what exists";
    answer("00000000");

    // Those that come later are subscribed at it alone.
    EXPECT_EQ(observe("third creations 7001", "00000000 00000000"),
              spaced("00000005 00000002" + kLampClass + "00000000"));
    EXPECT_EQ(observe("third deletions 7001", "00000000"),
              spaced("00000006 00000002" + kLampClass));
    EXPECT_EQ(newcomer.count(), received_);
    EXPECT_EQ(peer_->count(), before);
}

// Each one that is asked and does not answer keeps a worker: of one process not all are asked at
// once.
TEST_F(NotificationWireTest, muteNewcomersOfOneProcessHoldUpNobodyElseAndAreNotAllAskedAtOnce) {
    observe("first creations 7001", "00000000");
    constexpr std::size_t kAsked = 64;
    std::vector<std::unique_ptr<RawPeer>> mute;
    auto const asked = [&] {
        return static_cast<std::size_t>(std::count_if(
            mute.begin(), mute.end(), [](auto const& peer) { return peer->count() != 0; }));
    };
    for (std::size_t i = 0; i < kAsked + 6; ++i)
        mute.push_back(std::make_unique<RawPeer>(Transport::GroupId{1}));
    EXPECT_SOON(asked() >= kAsked);
    ReflectActor other;
    other.create("boat", "7001");
    EXPECT_SOON(actor_->noticed("first") == "boat ");
    ASSERT_EQ(asked(), kAsked);
    mute.erase(std::find_if(mute.begin(), mute.end(),
                            [](auto const& peer) { return peer->count() != 0; }));
    EXPECT_SOON(asked() == kAsked);
    ASSERT_LT(asked(), mute.size());
    mute.erase(std::find_if(mute.begin(), mute.end(),
                            [](auto const& peer) { return peer->count() == 0; }));
    mute.clear();
    other.finish();
}

}  // namespace
