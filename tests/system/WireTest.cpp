// Every byte that a broker sends to, and takes from, another process: the test plays the other side
// with messages that it writes and reads by hand, and has no broker itself.
#include "RawPeer.h"
#include "StationActor.h"

namespace {

using wire::number;
using wire::spaced;
using wire::stream;

/** A termination as it is encoded: in the byte order of the machine. */
std::string inHostOrder(Transport::TerminationId id) {
    unsigned int const value = id.value();
    return wire::hex(&value, sizeof value);
}

std::string const kEmptyContainer = "00000000 00000000";
std::string const kFailure = "00000001 00000004 00000000";
std::string const kAddress = "00C0FFEE";
std::string const kClass = "0057A710";
std::string const kActorName = "the station";

/** So many lines that peers can cause at will pass at once. */
constexpr unsigned int kFirstLines = 5;

class WireTest : public testing::Test {
protected:
    WireTest() {
        peer_ = std::make_unique<RawPeer>(Transport::GroupId{1});
        actor_ = std::make_unique<StationActor>(
            StationActor::Environment{{"TRANSPORT_ACTOR", kActorName}});
        lamp_ = actor_->publishStation("lamp");
    }
    ~WireTest() override { actor_->finish(); }

    Transport::TerminationId broker() const { return lamp_.termination; }
    unsigned int name() const { return broker().nameId(); }
    /** The transaction id of the broker's request number `count`, counted from 1. */
    std::string transaction(unsigned int count) const {
        return number(count << 20 | (broker().slotId() & 0xFu) << 16 | name());
    }
    void send(std::string const& digits) { ASSERT_EQ(peer_->send(broker(), digits), 1); }
    /** The next message, header and data. */
    std::string receive() {
        TreflectMessage message = peer_->await(received_++);
        EXPECT_EQ(message.originator(), broker());
        return wire::whole(message);
    }
    /** Sends a whole request, and has its answer hold just these data. */
    void expectAnswer(std::string const& request, std::string const& data) {
        send(request);
        std::string const head = wire::bare(request).substr(0, 16);
        EXPECT_EQ(receive(), spaced(head + "00000003" + stream(data))) << request;
    }
    /** Answers the search for "far" as if this side had it. */
    void beFound(unsigned int count) {
        EXPECT_EQ(receive(), spaced(transaction(count) + "00000001 00000002" +
                                    stream("00000003 666172 00000001")));
        send(transaction(count) + "00000001 00000003" + stream(kAddress));
    }
    void keepFar() {
        actor_->tell("keep far");
        beFound(1);
        actor_->await("done");
    }
    std::string request(std::string const& id, std::string const& type, std::string const& data) {
        return id + type + "00000002" + stream(data);
    }
    std::string call(std::string const& id, std::string const& method,
                     std::string const& arguments = "") {
        return request(id, "00000002",
                       number(lamp_.ioid) + "00000001" + kClass + method + arguments);
    }
    /** A good call, answered: the broker is there, and has answered nothing that came before. */
    void expectNoAnswerToWhatWasSent() {
        expectAnswer(call("0000A11E", "00000003"), kEmptyContainer + "00000000");
    }

    std::unique_ptr<RawPeer> peer_;
    std::unique_ptr<StationActor> actor_;
    StationActor::Made lamp_;
    std::size_t received_ = 0;
};

TEST_F(WireTest, searchIsTheIdentifierAndItsAnswerTheInternalId) {
    actor_->tell("find switch");
    EXPECT_EQ(receive(), spaced(transaction(1) + "00000001 00000002" +
                                stream("00000006 737769746368 00000001")));
    send(transaction(1) + "00000001 00000003" + stream("0000ABCD"));
    EXPECT_EQ(actor_->await("found").substr(0, 5), "abcd ");
    EXPECT_EQ(peer_->await(0).size(), 100u) << "the room that a search starts with";

    actor_->tell("find switch");
    EXPECT_EQ(receive().substr(0, 8), transaction(2));
    send(transaction(2) + "00000001 00000003" + stream("00000000"));
    EXPECT_EQ(actor_->await("found"), "0 0");
}

TEST_F(WireTest, callAndItsAnswer) {
    actor_->tell("rotate far 258 hello");
    beFound(1);
    EXPECT_EQ(receive(), spaced(transaction(2) + "00000002 00000002" +
                                stream(kAddress + "00000001" + kClass + "00000001" + "00000102" +
                                       "00000005 68656C6C6F")));
    send(transaction(2) + "00000002 00000003" + stream(kEmptyContainer + "00000002 6F6B"));
    EXPECT_EQ(actor_->await("rotated"), "1 ok");
    EXPECT_EQ(peer_->count(), received_) << "nothing else was sent";
}

TEST_F(WireTest, oneWayCallsAreMessagesThatNobodyWaitsForWithIdsInTheTopTwelveBits) {
    keepFar();
    constexpr unsigned int kCalls = 5000;
    EXPECT_EQ(actor_->ask("add far " + std::to_string(kCalls), "added"), std::to_string(kCalls));
    EXPECT_EQ(receive(), spaced(transaction(2) + "00000002 00000001" +
                                stream(kAddress + "00000000" + kClass + "00000002" + "00000001")));
    peer_->await(kCalls);
    for (unsigned int i = 0; i < kCalls; ++i)
        ASSERT_EQ(number(peer_->await(i + 1).transactionId()), transaction(i + 2));
}

TEST_F(WireTest, answersThatMakeNoSenseFailTheCallOnly) {
    keepFar();
    std::string const unreadable = std::to_string(TipprmiFailure::kUnreadable);
    struct {
        std::string payload, outcome;
    } const cases[]{
        {stream("00000001 00000004 0000002A"), "0 42"},
        {stream("00000001 00000004 FFFFFFFE"), "0 4294967294"},
        {stream("00000007 00000000"), "0 " + unreadable},  // not the broker's exception
        {stream(kEmptyContainer), "0 " + unreadable},      // no result
        {stream(kEmptyContainer + "00000009 6263"), "0 " + unreadable},  // half of a result
        {stream(kEmptyContainer + "7FFFFFFF 6263"), "0 " + unreadable},
        {stream(kEmptyContainer + "80000000 6263"), "0"},             // an empty text
        {"FFFFFFFF" + kEmptyContainer + "00000003 626361", "1"},      // reads what is there
        {stream(kEmptyContainer + "00000003 626361 DEADBEEF"), "1"},  // more than was asked for
        {stream(""), "0 0"},
        {"00000000", "0 0"},
    };
    unsigned int count = 1;
    for (auto const& [payload, outcome] : cases) {
        actor_->tell("use far");
        EXPECT_EQ(receive().substr(0, 8), transaction(++count));
        send(transaction(count) + "00000002 00000003");                // too short: dropped
        send(transaction(count + 7) + "00000002 00000003" + payload);  // not ours: dropped
        send(transaction(count) + "00000002 00000003" + payload);
        EXPECT_EQ(actor_->await("used"), outcome) << payload;
        if (count > 1 + kFirstLines)
            continue;
        EXPECT_TRUE(actor_->child().waitForErrorLine("drops message of 12 bytes from 0x"));
        EXPECT_TRUE(actor_->child().waitForErrorLine("receives unexpected response (org=0x"));
    }
}

TEST_F(WireTest, searchesAreAnswered) {
    expectAnswer(request("12345678", "00000001", wire::text("lamp") + "00000001"),
                 number(lamp_.ioid));
    EXPECT_EQ(peer_->await(0).size(), 104u) << "the room that an answer starts with";
    std::string const unknown[]{wire::text("lam") + "00000001",  // another name
                                wire::text("lamp") + "",  // no namespace: the broker has its own
                                "00000000 00000001",      // no name
                                "7FFFFFFF 6C616D70",      // a name longer than all messages
                                "FFFFFFFB 6C616D70",      // of negative length
                                ""};
    for (std::string const& data : unknown)
        expectAnswer(request("00000001", "00000001", data),
                     data.substr(0, 8) == "00000004" ? number(lamp_.ioid) : "00000000");
}

TEST_F(WireTest, callsAreAnswered) {
    expectAnswer(call("CAFE0001", "00000001", "00000001" + wire::text("abc")),
                 kEmptyContainer + wire::text("bca"));
    EXPECT_EQ(peer_->await(0).size(), 104u);
    expectAnswer(call("CAFE0002", "00000004", "0000002A"), "00000001 00000004 0000002A");
    // Any kind that is no answer is a request, and any transaction flag but 0 is set.
    expectAnswer("00000000 00000002 00000001" +
                     stream(number(lamp_.ioid) + "80000000" + kClass + "00000003"),
                 kEmptyContainer + "00000000");
    // What an object puts at the head of its responses, set and got.
    std::string const container = "00000007 00000002 ABCD";
    expectAnswer(call("CAFE0003", "00000834", container), container);
    expectAnswer(call("CAFE0004", "00000835"), container + container);
    expectAnswer(call("CAFE0005", "00000834", kEmptyContainer), kEmptyContainer);
    expectNoAnswerToWhatWasSent();
}

TEST_F(WireTest, callsThatCannotBeServedAreAnsweredWithAFailure) {
    std::string const refused[]{
        request("0BAD0000", "00000002", "0BADF00D 00000001" + kClass + "00000001"),  // no object
        call("0BAD0000", "00000063"),                                                // no method
        call("0BAD0000", "FFFFFFFF"), call("0BAD0000", "00000001"),                  // no arguments
        call("0BAD0000", "00000001", "00000001 00000004 6162"),                      // half of one
        call("0BAD0000", "00000001", "00000001 7FFFFFFF 6162"),  // one beyond the message
        call("0BAD0000", "00000009", "7FFFFFFF 00000001"),       // absurd count
        call("0BAD0000", "00000009", "00010001 00000001"),       // the least that is absurd
        call("0BAD0000", "00000009", "00000003 00000001"),       // count of what is not there
        request("0BAD0000", "00000002", number(lamp_.ioid) + "00000001"),  // header breaks off
        // Data longer than the message: what is there counts.
        "0BAD0000 00000002 00000002 FFFFFFFF" + number(lamp_.ioid) + "00000001" + kClass +
            "00000001"};
    for (std::string const& digits : refused)
        expectAnswer(digits, kFailure);
    expectNoAnswerToWhatWasSent();
}

TEST_F(WireTest, queryOfTheCountersIsEmptyAndItsAnswerAreNameAndCounters) {
    std::string const peer = number(peer_->termId().value());
    actor_->tell("counters " + peer);
    EXPECT_EQ(receive(), spaced(transaction(1) + "0000000A 00000002" + stream("")));
    EXPECT_EQ(peer_->await(0).size(), 100u);
    std::string const answer = "00000005 70616E656C 00000002" + inHostOrder(broker()) +
                               "00000007 00000002" + inHostOrder(0x01020304u) + "FFFFFFFF 00000000";
    send(transaction(1) + "0000000A 00000003" + stream(answer));
    std::ostringstream expected;
    expected << "panel " << std::hex << broker().value() << ":7:2 1020304:4294967295:0";
    EXPECT_EQ(actor_->await("counters"), expected.str());

    std::string const unreadable[]{"",
                                   "00000005 70616E",
                                   "00000005 70616E656C",
                                   "00000005 70616E656C 00000001",
                                   "00000005 70616E656C 00000001 04030201 00000001",
                                   "00000005 70616E656C FFFFFFFF 04030201"};
    unsigned int count = 1;
    for (std::string const& data : unreadable) {
        actor_->tell("counters " + peer);
        EXPECT_EQ(receive().substr(0, 8), transaction(++count));
        send(transaction(count) + "0000000A 00000003" + stream(data));
        EXPECT_EQ(actor_->await("counters"), "") << data;
    }
}

TEST_F(WireTest, queriesOfTheCountersAreAnsweredAndStartThemAfresh) {
    std::string const query = request("CAFE0001", "0000000A", "");
    std::string const none = wire::text(kActorName) + "00000000";
    expectAnswer(query, none);
    EXPECT_EQ(peer_->await(0).size(), 104u) << "the room that an answer starts with";

    std::string const outcomes[]{"00000003", "00000003", "00000004"};  // kinds of answers
    unsigned int count = 0;
    for (std::string const& kind : outcomes) {
        actor_->tell("find switch");
        EXPECT_EQ(receive().substr(0, 8), transaction(++count));
        send(transaction(count) + "00000001" + kind + stream("00000000"));
        actor_->await("found");
    }
    expectAnswer(query, wire::text(kActorName) + "00000001" + inHostOrder(peer_->termId()) +
                            "00000003 00000001");
    // Any kind that is no answer is a request, and whatever comes with it is of no account.
    expectAnswer("CAFE0001 0000000A 00000001" + stream("DEADBEEF"), none);
}

TEST_F(WireTest, whatIsNoRequestIsNotAnswered) {
    for (unsigned int size : {0u, 1u, 4u, 11u, 15u}) {
        send(std::string(2 * size, '0'));
        EXPECT_TRUE(actor_->child().waitForErrorLine("drops message of " + std::to_string(size)));
    }
    for (unsigned int type : {0u, 9u, 11u, 0xFFFFFFFFu}) {
        send(request("00000001", number(type), "00000000 00000001"));
        EXPECT_TRUE(actor_->child().waitForErrorLine("received request of unknown type (rorg="));
    }
    send("00000001 00000002 00000003 00000000");  // an answer that nobody awaits
    send("00000001 00000002 00000004 00000000");
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(actor_->child().waitForErrorLine("receives unexpected response (org=0x"));
    // One-way: to an object, to none, without arguments, without any header.
    std::string const head = "00000001 00000002 00000002";
    send(head + stream(number(lamp_.ioid) + "00000000" + kClass + "00000001 00000001 00000000"));
    send(head + stream("0BADF00D 00000000" + kClass + "00000001"));
    send(head + stream(number(lamp_.ioid) + "00000000" + kClass + "00000001"));
    send(head + "00000000");
    send(head + "FFFFFFFF");
    send(head + "80000000");
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(actor_->child().waitForErrorLine("Handling request message failed rc=0"));
    expectNoAnswerToWhatWasSent();
}

}  // namespace
