// The talk of two links: by cases, and over a bus that delays, loses, doubles, swaps and parts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <random>
#include <set>

#include "AllocationCount.h"
#include "oswrap/OutOfMemory.h"
#include "platform/transport/link/Session.h"
#include "tests/support/LogCapture.h"

namespace {

using Link::Action;
using Link::Delivery;
using Link::Session;
using Transport::AddressedMessage;
using Transport::TerminationId;
using Kind = Action::Kind;

constexpr long long kMillisecond = 1'000'000;
constexpr unsigned char kGroup = 3;

AddressedMessage message(TerminationId from, TerminationId to, std::uint32_t number,
                         std::size_t size) {
    AddressedMessage made = AddressedMessage::allocate(std::max(size, sizeof number));
    std::memcpy(made.buf(), &number, sizeof number);
    made.originator(from);
    made.destination(to);
    return made;
}

std::uint32_t numberIn(AddressedMessage const& message) {
    std::uint32_t number = 0;
    std::memcpy(&number, message.buf(), sizeof number);
    return number;
}

/** As one that has come out of its sender's ring. */
AddressedMessage inRing(AddressedMessage message) {
    Transport::MessageChain::endInRing(message, 8 * numberIn(message));
    return message;
}

/** A piece on its way. */
struct Sent {
    Link::PieceHead head;
    std::vector<unsigned char> records;
    long long at = 0;
};

/** One link, with what its machine would do. */
struct Side {
    Side(unsigned char slot, unsigned char peerSlot, std::uint64_t firstToken)
        : session(setup(slot, peerSlot, firstToken)) {}

    static Session::Setup setup(unsigned char slot, unsigned char peerSlot, std::uint64_t first) {
        Session::Setup setup;
        setup.ownSlot = slot;
        setup.peerSlot = peerSlot;
        setup.groups.set(kGroup);
        setup.newToken = [first]() mutable { return first++; };
        return setup;
    }

    std::vector<Action> actions() {
        Link::Actions taken;
        session.takeActions(taken);
        return {taken.begin(), taken.end()};
    }
    /** Everything that is to be written now. */
    std::vector<Sent> pieces(long long now) {
        std::vector<Sent> all;
        session.timePassed(now);
        while (session.nextPiece(piece, now))
            all.push_back({piece.head, {piece.data(), piece.data() + piece.size()}, now});
        return all;
    }
    void take(Sent const& sent, long long now) {
        session.pieceArrived(sent.head, sent.records.data(), sent.records.size(), now);
    }

    Session session;
    Link::Piece piece;
};

/** Two links whose pieces pass at once, one termination each. */
class SessionTest : public testing::Test {
protected:
    void SetUp() override {
        a.session.peerSeen(now);
        b.session.peerSeen(now);
        passAll();
        a.session.announce(here, true, Link::joinNames("here", "h"));
        b.session.announce(there, true, Link::joinNames("there", "t"));
        passAll();
        a.actions();
        b.actions();
    }
    /** After a session has ended, with one termination each. */
    void meetAnew() {
        a.session.peerLost(now);
        a.session.peerSeen(now);
        now += 200 * kMillisecond;
        passAll();
        a.session.announce(here, true, {});
        b.session.announce(there, true, {});
        passAll();
    }
    void passAll() {
        for (bool any = true; any;) {
            now += 10 * kMillisecond;
            any = pass(a, b);
            any = pass(b, a) || any;
        }
    }
    bool pass(Side& from, Side& to) {
        auto const pieces = from.pieces(now);
        for (Sent const& sent : pieces)
            to.take(sent, now);
        return !pieces.empty();
    }
    Session::Sending send(std::uint32_t number, std::size_t size = 100, std::uint32_t channel = 1) {
        return a.session.send(inRing(message(here, there, number, size)), channel);
    }
    /** What is wanted: a Release with its place, a GiveBack with the number of the message. */
    using Wanted = std::vector<std::pair<Kind, std::uint32_t>>;
    static Wanted wanted(std::vector<Action> const& actions) {
        Wanted all;
        for (Action const& action : actions)
            all.push_back({action.kind, action.kind == Kind::GiveBack ? numberIn(action.message)
                                                                      : action.place});
        return all;
    }
    static std::vector<Kind> kinds(std::vector<Action> const& actions) {
        std::vector<Kind> all;
        for (Action const& action : actions)
            all.push_back(action.kind);
        return all;
    }
    /** What `b` does with a piece whose records are these, and which is in order. */
    std::vector<Action> afterRecord(Link::RecordHead const& head, std::string const& bytes = {}) {
        ++hand.number;
        Link::Piece piece;
        Link::RecordHead whole = head;
        whole.length = static_cast<std::uint32_t>(bytes.size());
        piece.append(whole, reinterpret_cast<unsigned char const*>(bytes.data()));
        b.session.pieceArrived(hand, piece.data(), piece.size(), now);
        return b.actions();
    }
    /** From now on `b` talks to the hand of the test. */
    void takeOver() { hand = a.pieces(now + 10 * kMillisecond).empty() ? lastHead() : hand; }
    Link::PieceHead lastHead() {
        a.session.announce(TerminationId(9, 1, kGroup), false, {});
        Sent const sent = a.pieces(now).at(0);
        b.take(sent, now);
        b.actions();
        return sent.head;
    }

    long long now = 1'000'000'000;
    TerminationId const here{7, 1, kGroup}, there{7, 2, kGroup};
    Side a{1, 2, 100}, b{2, 1, 200};
    Link::PieceHead hand;
};

TEST_F(SessionTest, a_message_is_kept_until_it_is_settled_over_there) {
    EXPECT_EQ(send(1), Session::Sending::Taken);
    EXPECT_EQ(send(2, 300'000), Session::Sending::Taken);
    passAll();
    auto const delivered = b.actions();
    ASSERT_EQ(kinds(delivered), (std::vector<Kind>{Kind::Deliver, Kind::Deliver}));
    EXPECT_EQ(numberIn(delivered[0].message), 1u);
    EXPECT_EQ(numberIn(delivered[1].message), 2u);
    EXPECT_EQ(delivered[1].message.size(), 300'000u);
    EXPECT_EQ(delivered[1].message.originator(), here);
    EXPECT_GT(a.session.unsettledBytes(), 300'000u) << "taken in by the link is not delivered";
    b.session.settled(Delivery(delivered[0]), now);
    EXPECT_TRUE(b.pieces(now).empty()) << "that may wait for company";
    b.session.tellNow(now);
    EXPECT_EQ(b.session.dueAt(), now);
    b.session.refused(Delivery(delivered[1]), now);
    passAll();
    EXPECT_EQ(a.session.unsettledBytes(), 0u);
    EXPECT_EQ(wanted(a.actions()),
              (Wanted{{Kind::Release, 8}, {Kind::GiveBack, 2}, {Kind::Release, 16}}));
}

TEST_F(SessionTest, what_is_settled_behind_what_is_not_stays_its_senders) {
    for (bool const ends : {false, true}) {
        SCOPED_TRACE(ends);
        for (std::uint32_t number = 1; number <= 4; ++number)
            send(number);
        passAll();
        auto const delivered = b.actions();
        ASSERT_EQ(delivered.size(), 4u);
        b.session.refused(Delivery(delivered[1]), now);
        b.session.settled(Delivery(delivered[2]), now);
        passAll();
        EXPECT_TRUE(a.actions().empty());
        EXPECT_EQ(a.session.unsettledBytes(), 3u * (100 + 64)) << "what is refused is still kept";
        if (ends) {
            a.session.peerLost(now);
            EXPECT_EQ(wanted(a.actions()), (Wanted{{Kind::Ended, 0}})) << "the ring gives it back";
            EXPECT_EQ(a.session.figures().givenBack, 1u + 1 + 4);
            return;
        }
        b.session.settled(Delivery(delivered[0]), now);
        passAll();
        EXPECT_EQ(wanted(a.actions()),
                  (Wanted{{Kind::GiveBack, 2}, {Kind::Release, 16}, {Kind::Release, 24}}));
        b.session.refused(Delivery(delivered[3]), now);
        passAll();
        EXPECT_EQ(wanted(a.actions()), (Wanted{{Kind::GiveBack, 4}, {Kind::Release, 32}}));
    }
}

TEST_F(SessionTest, when_a_ring_ends_what_came_out_of_it_is_its_senders_or_ours) {
    for (bool const takenBack : {true, false}) {
        SCOPED_TRACE(takenBack);
        for (std::uint32_t number = 1; number <= 2; ++number)
            send(number);
        passAll();
        auto const delivered = b.actions();
        auto const session = a.session.figures().ended;
        EXPECT_EQ(a.session.ringEnded(here, there, 1, session + 1, takenBack), std::nullopt);
        EXPECT_EQ(a.session.ringEnded(here, there, 2, session, takenBack), std::nullopt);
        EXPECT_EQ(a.session.ringEnded(here, there, 1, session, takenBack),
                  takenBack ? std::nullopt : std::optional(16u));
        send(3);
        b.session.refused(Delivery(delivered[0]), now);
        passAll();
        EXPECT_EQ(wanted(a.actions()), takenBack ? Wanted{} : (Wanted{{Kind::GiveBack, 1}}))
            << "and nothing is to be released";
        b.session.settled(Delivery(b.actions().at(0)), now);
        passAll();
        EXPECT_EQ(wanted(a.actions()), Wanted{});
        a.session.peerLost(now);
        EXPECT_EQ(wanted(a.actions()), takenBack ? (Wanted{{Kind::Ended, 0}})
                                                 : (Wanted{{Kind::GiveBack, 2}, {Kind::Ended, 0}}));
        a.session.peerSeen(now);
        now += 200 * kMillisecond;
        passAll();
        a.session.announce(here, true, {});
        b.session.announce(there, true, {});
        passAll();
        a.actions();
        b.actions();
    }
}

TEST_F(SessionTest, rings_of_who_follow_each_other_under_one_id_are_released_and_end_one_by_one) {
    for (std::uint32_t number = 1; number <= 4; ++number)
        send(number, 100, 1 + number / 3);
    passAll();
    auto const delivered = b.actions();
    auto const session = a.session.figures().ended;
    EXPECT_EQ(a.session.ringEnded(here, there, 3, session, false), std::nullopt);
    b.session.settled(Delivery(delivered[0]), now);
    b.session.settled(Delivery(delivered[1]), now);
    b.session.settled(Delivery(delivered[2]), now);
    passAll();
    EXPECT_EQ(wanted(a.actions()), (Wanted{{Kind::Release, 16}, {Kind::Release, 24}}));
    EXPECT_EQ(a.session.ringEnded(here, there, 1, session, true), std::nullopt);
    b.session.refused(Delivery(delivered[3]), now);
    passAll();
    auto const actions = a.actions();
    EXPECT_EQ(wanted(actions), (Wanted{{Kind::GiveBack, 4}, {Kind::Release, 32}}));
    EXPECT_EQ(actions.at(1).channel, 2u);
}

TEST_F(SessionTest, without_memory_what_is_given_back_and_what_is_released_go_together) {
    unsigned long n = 0;
    for (bool reached = true; reached;) {
        send(1);
        send(2);
        passAll();
        for (Action const& action : b.actions())
            if (action.kind == Kind::Deliver)
                b.session.refused(Delivery(action), now);
        std::vector<Sent> const pieces = b.pieces(now);
        starve(++n);
        bool const whole = OSWrap::withMemory([&] {
            for (Sent const& sent : pieces)
                a.take(sent, now);
        });
        reached = feed();
        if (!whole)
            a.session.memoryRanOut(now);
        auto const actions = kinds(a.actions());
        auto const count = [&](Kind kind) {
            return std::count(actions.begin(), actions.end(), kind);
        };
        EXPECT_EQ(count(Kind::GiveBack), count(Kind::Release)) << n;
        if (whole)
            continue;
        now += 200 * kMillisecond;
        passAll();
        a.session.announce(here, true, {});
        b.session.announce(there, true, {});
        passAll();
        b.actions();
    }
    EXPECT_GT(n, 3u);
}

TEST_F(SessionTest, a_pair_beyond_its_credit_is_held_back_and_others_are_not) {
    TerminationId const other(8, 2, kGroup);
    b.session.announce(other, false, {});
    passAll();
    std::uint32_t number = 0;
    while (send(++number, 60'000) == Session::Sending::Taken)
        ASSERT_LT(number, 100u);
    EXPECT_EQ(a.session.send(message(here, other, 1, 100), 0), Session::Sending::Taken);
    passAll();
    for (Action const& action : b.actions())
        if (action.kind == Kind::Deliver && action.to == there)
            b.session.settled(Delivery(action), now);
    a.actions();
    passAll();
    EXPECT_EQ(kinds(a.actions()), (std::vector<Kind>{Kind::Release, Kind::GoOn}));
}

TEST_F(SessionTest, those_who_do_not_read_use_up_the_credit_of_all_and_others_still_get_on) {
    for (unsigned short name = 11; name < 15; ++name) {
        TerminationId const stopped(name, 2, kGroup);
        b.session.announce(stopped, false, {});
        passAll();
        EXPECT_EQ(a.session.send(message(here, stopped, 1, 16u << 20), 0),
                  Session::Sending::TakenHoldBack);
    }
    EXPECT_GE(a.session.unsettledBytes(), Session::kCreditOfAll);
    passAll();
    a.actions();
    b.actions();
    for (std::uint32_t number = 1; number < 10; number += 2) {
        EXPECT_EQ(send(number), Session::Sending::Taken);
        EXPECT_EQ(send(number + 1, Session::kCreditWhenFull), Session::Sending::TakenHoldBack);
        passAll();
        for (Action const& action : b.actions())
            b.session.settled(Delivery(action), now);
        passAll();
        EXPECT_EQ(kinds(a.actions()), (std::vector<Kind>{Kind::Release, Kind::GoOn}));
    }
}

TEST_F(SessionTest, what_was_under_way_to_who_has_gone_is_left_or_given_back_to_its_sender) {
    a.session.send(message(here, there, 0, 100), 0);
    send(1);
    passAll();
    send(2, 300'000);
    b.session.withdraw(there, now);
    pass(b, a);
    EXPECT_EQ(a.session.queuedBytes(), 0u) << "what nobody takes is not sent";
    passAll();
    auto const actions = a.actions();
    EXPECT_EQ(kinds(actions), (std::vector<Kind>{Kind::GiveBack, Kind::Drop}))
        << "what has come out of a ring is there still";
    EXPECT_EQ(send(3), Session::Sending::Refused);
    EXPECT_EQ(a.session.unsettledBytes(), 0u);
    a.session.send(message(here, there, 4, 10), 0);
    passAll();
    EXPECT_EQ(a.session.figures().ended + b.session.figures().ended, 0u);
}

TEST_F(SessionTest, a_departure_is_told_when_all_channels_are_cleared_or_not_much_later) {
    struct Case {
        char const* what;
        // 1 to 4: a channel begins; c, d, e: that one is cleared; f: one of the former session is;
        // n, g: another one of the id comes, goes; m, s, v: the first, the second, the third sends;
        // r: something comes back; t: time passes
        char const* events;
        std::vector<Kind> wanted;
        bool told;  // a line says what is lost
    };
    Case const cases[] = {
        {"not cleared", "12gr", {Kind::GiveBack}, false},
        {"one is cleared", "12grc", {Kind::GiveBack}, false},
        {"others were", "12gff", {}, false},
        {"all are", "12grcrd", {Kind::GiveBack, Kind::GiveBack, Kind::Drop}, false},
        {"all are, before", "12cdg", {Kind::Drop}, false},
        {"something comes back nevertheless", "1gcr", {Kind::Drop}, true},
        {"not in time", "1grtr", {Kind::GiveBack, Kind::Drop}, true},
        {"there is a successor", "1gnrc", {Kind::GiveBack, Kind::Drop, Kind::Show}, false},
        {"which has a channel, too", "1gn2rc", {Kind::GiveBack, Kind::Drop, Kind::Show}, false},
        {"which is cleared before", "12gn3erc", {Kind::GiveBack}, false},
        {"which has gone, too", "1gngrc", {Kind::GiveBack, Kind::Drop}, false},
        {"both send", "1gn3smc", {Kind::Deliver, Kind::Drop, Kind::Show, Kind::Deliver}, false},
        {"and both are gone",
         "1gn3smgec",
         {Kind::Deliver, Kind::Drop, Kind::Show, Kind::Deliver, Kind::Drop},
         false},
        {"who comes sends before he is known", "1gsnc", {Kind::Drop, Kind::Show}, false},
        {"the successor is gone, and not cleared",
         "1gn3gcsr",
         {Kind::Drop, Kind::Show, Kind::Deliver, Kind::GiveBack},
         false},
        {"and is, then", "1gn3gcse", {Kind::Drop, Kind::Show, Kind::Deliver, Kind::Drop}, false},
        {"a third one sends before the second",
         "1gn3gn4vsce",
         {Kind::Drop, Kind::Show, Kind::Deliver, Kind::Drop, Kind::Show, Kind::Deliver},
         false},
        {"both are not in time", "1gn3gt", {Kind::Drop, Kind::Show, Kind::Drop}, true},
    };
    AddressedMessage const unread = message(there, here, 1, 10);
    for (Case const& one : cases) {
        SCOPED_TRACE(one.what);
        testsupport::LogCapture const log;
        meetAnew();
        b.actions();
        auto const session = a.session.figures().ended;
        for (char const* event = one.events; *event != 0; ++event) {
            switch (*event) {
                case '1':
                case '2':
                case '3':
                case '4':
                    a.session.channelBegan(here, *event - '0', session);
                    break;
                case 'c':
                case 'd':
                case 'e':
                    a.session.channelCleared(here, *event - 'c' + 1, session);
                    break;
                case 'f':
                    a.session.channelCleared(here, 1, session - 1);
                    break;
                case 'm':
                    send(1, 100, 1);
                    break;
                case 's':
                    send(2, 100, 3);
                    break;
                case 'v':
                    send(3, 100, 4);
                    break;
                case 'n':
                    EXPECT_FALSE(a.session.announced(here));
                    a.session.announce(here, true, {});
                    EXPECT_TRUE(a.session.announced(here));
                    break;
                case 'g':
                    a.session.withdraw(here, now);
                    break;
                case 'r':
                    a.session.returned(unread, session, false);
                    break;
                case 't':
                    EXPECT_LE(a.session.dueAt(), now + Session::kClearedWithin);
                    now += Session::kClearedWithin;
                    break;
            }
            passAll();
        }
        EXPECT_EQ(kinds(b.actions()), one.wanted);
        EXPECT_EQ(log.records().empty(), !one.told);
    }
}

TEST_F(SessionTest, what_was_under_way_to_a_former_one_of_an_id_is_not_its_successors) {
    for (std::uint32_t number = 1; number <= 3; ++number)
        send(number);
    passAll();
    auto const delivered = b.actions();
    send(4);
    std::vector<Sent> const late = a.pieces(now);
    auto const session = b.session.figures().ended;
    b.session.channelBegan(there, 1, session);
    EXPECT_TRUE(b.session.isForPresent(delivered[0]));
    b.session.withdraw(there, now);
    EXPECT_FALSE(b.session.isForPresent(delivered[0])) << "though that is not told yet";
    b.session.announce(there, true, {});
    b.session.channelCleared(there, 1, session);
    EXPECT_FALSE(b.session.isForPresent(delivered[0]));
    for (Sent const& sent : b.pieces(now))
        a.take(sent, now);
    EXPECT_EQ(send(5), Session::Sending::Refused) << "by the former one's proxy";
    EXPECT_EQ(kinds(a.actions()), (std::vector<Kind>{Kind::Drop, Kind::Show}));
    a.session.dropped(there, a.session.figures().ended + 1);
    EXPECT_EQ(send(5), Session::Sending::Refused);
    a.session.dropped(there, a.session.figures().ended);
    EXPECT_EQ(send(6, 100, 2), Session::Sending::Taken);
    for (Sent const& sent : late)
        b.take(sent, now);
    EXPECT_EQ(kinds(b.actions()), std::vector<Kind>{}) << "its sender has it back";
    for (Action const& action : delivered)
        b.session.settled(Delivery(action), now);
    passAll();
    EXPECT_EQ(kinds(a.actions()), std::vector<Kind>{});
    EXPECT_GT(a.session.unsettledBytes(), 0u);
    auto const next = b.actions();
    ASSERT_EQ(kinds(next), std::vector<Kind>{Kind::Deliver});
    EXPECT_EQ(numberIn(next[0].message), 6u);
    EXPECT_TRUE(b.session.isForPresent(next[0]));
    b.session.settled(Delivery(next[0]), now);
    passAll();
    EXPECT_EQ(wanted(a.actions()), (Wanted{{Kind::Release, 48}}));
    EXPECT_EQ(a.session.unsettledBytes(), 0u);
}

TEST_F(SessionTest, what_comes_back_to_a_former_one_of_an_id_is_not_its_successors) {
    auto const session = b.session.figures().ended;
    auto const comeBack = [&](std::uint32_t number, bool leaves = false) {
        return b.session.returned(message(here, there, number, 100), session, leaves);
    };
    auto const follow = [this] {
        a.session.withdraw(here, now);
        a.session.announce(here, true, {});
    };
    testsupport::LogCapture const log;
    comeBack(1);
    std::vector<Sent> const late = b.pieces(now);
    follow();
    for (Sent const& sent : late)
        a.take(sent, now);
    EXPECT_EQ(kinds(a.actions()), std::vector<Kind>{}) << "it was on its way";
    passAll();
    b.session.dropped(here, session);

    comeBack(2);
    comeBack(3, true);
    follow();
    pass(a, b);
    EXPECT_EQ(b.session.queuedBytes(), 0u) << "or was about to go";
    EXPECT_FALSE(comeBack(4)) << "or comes before the proxy takes no more";
    b.session.dropped(here, session);
    EXPECT_FALSE(comeBack(5, true)) << "or when it does not";
    passAll();
    EXPECT_EQ(kinds(a.actions()), std::vector<Kind>{});

    comeBack(6);
    passAll();
    auto const actions = a.actions();
    EXPECT_EQ(wanted(actions), (Wanted{{Kind::GiveBack, 6}}));
    EXPECT_TRUE(a.session.isForPresent(actions.at(0)));
    follow();
    EXPECT_FALSE(a.session.isForPresent(actions[0])) << "or waits to be given back";
}

TEST_F(SessionTest, what_is_not_delivered_is_given_back_to_who_has_sent_it_alone) {
    struct Case {
        char const* what;
        // 1: a channel begins, c: it is cleared; m, s: the first, the second sends; g: who is there
        // goes; n: another one of the id comes; r: all is refused; d: its destination goes; e: the
        // session ends
        char const* events;
        std::vector<std::uint32_t> back;
    };
    Case const cases[] = {
        {"refused", "1mr", {1}},
        {"while he departs", "1mgr", {}},
        {"when he has", "mgr", {}},
        {"behind the second one's arrival", "mgnr", {}},
        {"before it", "1mgnr", {}},
        {"both ones'", "mgnsr", {2}},
        {"both ones', the second not told of", "1mgnscr", {2}},
        {"without a destination", "1mgnsd", {2}},
        {"when the second has gone, too", "1mgnsgd", {}},
        {"without a session", "1mgnse", {2}},
        {"nor a sender", "1mge", {}},
    };
    for (Case const& one : cases) {
        SCOPED_TRACE(one.what);
        meetAnew();
        a.actions();
        b.actions();
        for (char const* event = one.events; *event != 0; ++event) {
            switch (*event) {
                case '1':
                    a.session.channelBegan(here, 1, a.session.figures().ended);
                    break;
                case 'c':
                    a.session.channelCleared(here, 1, a.session.figures().ended);
                    break;
                case 'm':
                    a.session.send(message(here, there, 1, 100), 1);
                    break;
                case 's':
                    a.session.send(message(here, there, 2, 100), 2);
                    break;
                case 'g':
                    a.session.withdraw(here, now);
                    break;
                case 'n':
                    a.session.announce(here, true, {});
                    break;
                case 'r':
                    for (Action const& action : b.actions())
                        if (action.kind == Kind::Deliver)
                            b.session.refused(Delivery(action), now);
                    break;
                case 'd':
                    b.session.withdraw(there, now);
                    break;
                case 'e':
                    a.session.peerLost(now);
                    break;
            }
            passAll();
        }
        std::vector<std::uint32_t> back;
        for (Action const& action : a.actions())
            if (action.kind == Kind::GiveBack && a.session.isForPresent(action))
                back.push_back(numberIn(action.message));
        EXPECT_EQ(back, one.back);
    }
}

TEST_F(SessionTest, nothing_confirmed_means_a_probe_after_one_second_and_the_end_after_four) {
    send(1);
    EXPECT_EQ(a.pieces(now).size(), 1u);  // lost
    EXPECT_EQ(a.session.dueAt(), now + Session::kProbeAfter);
    EXPECT_TRUE(a.pieces(now + Session::kProbeAfter - 1).empty());
    EXPECT_EQ(a.pieces(now + Session::kProbeAfter).size(), 1u);
    EXPECT_EQ(a.session.dueAt(), now + Session::kEndAfter);
    a.pieces(now + Session::kEndAfter);
    EXPECT_EQ(kinds(a.actions()), (std::vector<Kind>{Kind::Ended}));
    now += Session::kEndAfter + Session::kHelloInterval;
    passAll();
    EXPECT_EQ(kinds(b.actions()), (std::vector<Kind>{Kind::Ended, Kind::Opened}));
    EXPECT_EQ(kinds(a.actions()), (std::vector<Kind>{Kind::Opened}));
}

TEST_F(SessionTest, who_has_lost_sight_for_a_moment_only_makes_the_other_one_begin_anew_too) {
    b.session.send(message(there, here, 1, 10), 0);
    auto const late = b.pieces(now);
    a.session.peerLost(now);
    a.session.peerSeen(now);
    auto const hello = a.pieces(now);
    for (Sent const& sent : late)
        a.take(sent, now);
    for (Sent const& sent : hello)
        b.take(sent, now);
    EXPECT_EQ(kinds(b.actions()), (std::vector<Kind>{Kind::GiveBack, Kind::Ended}));
    EXPECT_EQ(kinds(a.actions()), std::vector<Kind>{Kind::Ended}) << "nothing of the former one";
    passAll();
    EXPECT_EQ(kinds(a.actions()), std::vector<Kind>{Kind::Opened});
    EXPECT_EQ(kinds(b.actions()), std::vector<Kind>{Kind::Opened});
}

TEST_F(SessionTest, who_runs_out_of_memory_begins_anew_and_gives_back_what_was_taken_once) {
    std::vector<AddressedMessage> messages;
    for (std::uint32_t number = 0; number < 5; ++number)
        messages.push_back(message(here, there, number, 100));
    unsigned long n = 0;
    for (bool reached = true; reached;) {
        std::size_t taken = 0;
        starve(++n, 3);
        bool whole = OSWrap::withMemory([&] {
            for (AddressedMessage const& one : messages) {
                a.session.send(one, 0);
                ++taken;
            }
        });
        whole = OSWrap::withMemory([&] { pass(a, b); }) && whole;
        reached = feed();
        starve(1 + n % 5);  // and again, while that is made good
        for (Side* side : {&a, &b})
            while (!whole && !OSWrap::withMemory([&] { side->session.memoryRanOut(now); })) {
            }
        feed();
        if (whole)
            a.session.peerLost(now);
        auto const back = kinds(a.actions());
        EXPECT_EQ(static_cast<std::size_t>(std::count(back.begin(), back.end(), Kind::GiveBack)),
                  taken)
            << n;
        EXPECT_EQ(back.back(), Kind::Ended) << n;
        a.session.peerSeen(now);
        passAll();
        ASSERT_EQ(a.session.state(), Session::State::Open) << n;
        a.session.announce(here, true, {});
        b.session.announce(there, true, {});
        passAll();
        a.actions();
        b.actions();
    }
    EXPECT_GT(n, 10u);
}

TEST_F(SessionTest, no_time_is_asked_for_while_nothing_is_under_way) {
    EXPECT_EQ(a.session.dueAt(), Session::kNever);
    EXPECT_EQ(b.session.dueAt(), Session::kNever);
}

TEST_F(SessionTest, a_peer_that_sends_nonsense_ends_its_session_or_is_passed_over) {
    using Link::RecordKind;
    struct Case {
        char const* what;
        Link::RecordHead head;
        std::string bytes;
        bool ends;
    };
    TerminationId const foreign(5, 3, kGroup), nobody(55, 2, kGroup);
    Case const cases[] = {
        {"arrival in a foreign slot", {RecordKind::Arrived, foreign}, "x", false},
        {"arrival in our slot", {RecordKind::Arrived, nobody}, "x", false},
        {"arrival of no group", {RecordKind::Arrived, TerminationId(5, 1, 0)}, "x", false},
        {"second arrival", {RecordKind::Reachable, here}, "x", true},
        {"departure of nobody", {RecordKind::Departed, foreign}, "", false},
        {"message of nobody", {RecordKind::Message, foreign, there, 0, 1}, "x", false},
        {"message for nobody", {RecordKind::Message, here, nobody, 0, 1}, "x", false},
        {"a part without a beginning", {RecordKind::Message, here, there, 0, 9, 4}, "x", true},
        {"settlement of another pair", {RecordKind::Settled, foreign, here, 0, 1}, "", false},
        {"return for a stranger", {RecordKind::Returned, foreign, here, 0, 1}, "x", false},
        {"unknown kind", {static_cast<RecordKind>(77), here, there, 0, 1}, "x", true},
        {"part beyond its message", {RecordKind::Message, here, there, 0, 3, 2}, "xx", true},
        {"message beyond the limit",
         {RecordKind::Message, here, there, 0, (16u << 20) + 1},
         "x",
         true},
    };
    testsupport::LogCapture const log;
    for (Case const& one : cases) {
        SCOPED_TRACE(one.what);
        now += 1000 * kMillisecond;
        passAll();
        if (!b.session.announced(there))
            b.session.announce(there, true, {});
        if (!a.session.announced(here))
            a.session.announce(here, true, {});
        passAll();
        b.actions();
        hand = lastHead();
        auto const actions = afterRecord(one.head, one.bytes);
        EXPECT_EQ(kinds(actions), one.ends ? std::vector<Kind>{Kind::Ended} : std::vector<Kind>{});
    }
}

TEST_F(SessionTest, a_settlement_of_more_than_was_sent_ends_the_session) {
    b.session.send(message(there, here, 1, 10), 0);
    b.pieces(now);
    hand = lastHead();
    EXPECT_EQ(kinds(afterRecord({Link::RecordKind::Settled, there, here, 0, 2})),
              (std::vector<Kind>{Kind::GiveBack, Kind::Ended}));
}

TEST_F(SessionTest, a_confirmation_of_more_than_was_sent_ends_the_session) {
    hand = lastHead();
    hand.taken += 1000;
    EXPECT_EQ(kinds(afterRecord({Link::RecordKind::Probe})), std::vector<Kind>{Kind::Ended});
}

TEST_F(SessionTest, a_termination_of_a_group_that_is_not_shared_is_reachable_only) {
    a.session.announce(TerminationId(1, 1, 2), true, {});
    a.session.announce(TerminationId(2, 1, kGroup), true, Link::joinNames("actor", "name"));
    passAll();
    auto const actions = b.actions();
    ASSERT_EQ(kinds(actions), (std::vector<Kind>{Kind::ShowSilent, Kind::Show}));
    std::string actor, name;
    Link::splitNames(actions[1].text, actor, name);
    EXPECT_EQ(actor + "/" + name, "actor/name");
}

/** As another link would, or one that has begun anew: `b` has its own tokens, and those of before.
 */
TEST_F(SessionTest, what_was_said_in_an_earlier_life_delivers_and_settles_nothing) {
    b.session.send(message(there, here, 1, 10), 0);
    passAll();
    send(2);
    a.session.settled(Delivery(a.actions().at(0)), now);
    a.session.withdraw(here, now);
    now += 10 * kMillisecond;
    std::vector<Sent> const former = a.pieces(now);
    for (Sent const& sent : former)
        b.take(sent, now);
    EXPECT_EQ(kinds(b.actions()), (std::vector<Kind>{Kind::Deliver, Kind::Drop}));
    struct Case {
        char const* what;
        bool from, to, number;  // those of now
        bool ends;
    };
    Case const cases[] = {{"as it was", false, false, false, true},
                          {"to who is there now", false, true, false, true},
                          {"from who is there now", true, false, false, false},
                          {"from who is there now, in turn", true, false, true, false},
                          {"between those who are there now", true, true, false, true}};
    testsupport::LogCapture const log;
    for (Case const& one : cases) {
        SCOPED_TRACE(one.what);
        meetAnew();
        b.actions();
        EXPECT_EQ(b.session.send(message(there, here, 3, 10), 0), Session::Sending::Taken);
        Link::PieceHead const present = lastHead();
        for (Sent sent : former) {
            if (one.from)
                sent.head.fromToken = present.fromToken;
            if (one.to)
                sent.head.toToken = present.toToken;
            if (one.number)
                sent.head.number = present.number + 1;
            b.take(sent, now);
        }
        EXPECT_EQ(kinds(b.actions()), one.ends ? (std::vector<Kind>{Kind::GiveBack, Kind::Ended})
                                               : std::vector<Kind>{});
    }
}

// ---- Over a bus that has faults -----------------------------------------------------------------

/** What has become of each message. */
struct Fate {
    int delivered = 0;
    int returned = 0;
    bool unreadReturnLost = false;
    std::uint32_t life = 0;   // of its sender's id
    std::uint32_t proxy = 0;  // of its sender, that it has come by
};

/** Two machines with some terminations each, which come and go. Those of an even name id are slow.
 */
class Machines {
public:
    explicit Machines(unsigned seed) : dice_(seed) {}

    /** Runs for so many milliseconds, with or without faults and new messages. */
    void run(int milliseconds, bool faults) {
        for (int i = 0; i < milliseconds; ++i) {
            now_ += kMillisecond;
            if (faults)
                disturb();
            for (int side = 0; side < 2; ++side) {
                step(side, faults);
                carry(side, faults);
            }
        }
    }

    Side sides[2] = {{1, 2, 1'000}, {2, 1, 1'000'000}};
    std::map<std::uint32_t, Fate> fates;
    std::string trouble;

private:
    using Waiting = Action;
    using PairKey = std::pair<TerminationId, TerminationId>;

    bool oneIn(unsigned n) { return dice_() % n == 0; }
    TerminationId someone(int side) {
        auto const& all = present_[side];
        return all.empty() ? TerminationId() : *std::next(all.begin(), dice_() % all.size());
    }

    void disturb() {
        for (int side = 0; side < 2; ++side) {
            if (oneIn(1500)) {
                cutUntil_[side] = now_ + (200 + dice_() % 3000) * kMillisecond;
                if (oneIn(2))
                    cutUntil_[1 - side] = cutUntil_[side];
            }
        }
        for (int side = 0; side < 2; ++side) {
            bool const sees = now_ > cutUntil_[1 - side];  // what the other one says gets here
            if (!sees && sees_[side] && now_ > cutUntil_[1 - side] - 2000 * kMillisecond &&
                oneIn(300)) {
                sees_[side] = false;
                sides[side].session.peerLost(now_);
            }
        }
    }

    void step(int side, bool faults) {
        Session& session = sides[side].session;
        if (now_ > cutUntil_[1 - side] && !std::exchange(sees_[side], true))
            session.peerSeen(now_);
        if (faults && oneIn(20) && present_[side].size() < 6)
            come(side);
        if (faults && oneIn(400))
            go(side);
        for (int i = 0; faults && i < 4; ++i)
            sendOne(side);
        act(side);
        settleSome(side, faults);
    }

    void come(int side) {
        auto const name = static_cast<unsigned short>(1 + dice_() % 8);  // again and again
        come(side, TerminationId(name, static_cast<unsigned char>(side + 1), kGroup));
    }

    void come(int side, TerminationId id) {
        if (!present_[side].insert(id).second)
            return;
        ++lives_[id];
        sides[side].session.announce(id, oneIn(2), {});
    }

    /** Those that go have read what was in their rings, or it comes back. */
    void go(int side) {
        TerminationId const gone = someone(side);
        Session& session = sides[side].session;
        if (!present_[side].erase(gone))
            return;
        for (auto& [pair, waiting] : waiting_[side])
            if (pair.second == gone)
                refuseAll(side, waiting);
        for (auto const& message : unread_[side])
            if (message.destination() == gone)
                returnUnread(side, message);
        unread_[side].remove_if([gone](auto const& m) { return m.destination() == gone; });
        session.withdraw(gone, now_);
        letGo(gone);
        if (oneIn(2))
            come(side, gone);  // who sends to it does not know yet
    }

    /** Whoever comes under the id is not held back. */
    void letGo(TerminationId id) {
        for (auto at = held_.begin(); at != held_.end();)
            at = at->first == id || at->second == id ? held_.erase(at) : std::next(at);
    }

    /** Of this one with the proxy of that one. */
    std::uint32_t channel(TerminationId from, TerminationId to) {
        return lives_[from] << 16 | proxies_[to];
    }

    void refuseAll(int side, std::deque<Waiting>& waiting) {
        for (auto const& one : waiting)
            sides[side].session.refused(Delivery(one), now_);
        waiting.clear();
    }

    void returnUnread(int side, AddressedMessage const& message) {
        Fate& fate = fates[numberIn(message)];
        --fate.delivered;
        fate.unreadReturnLost = true;  // until it has come
        Session& session = sides[side].session;
        bool const leaves = fate.proxy != proxies_[message.originator()];
        session.returned(message, session.figures().ended, leaves);
    }

    void sendOne(int side) {
        TerminationId const from = someone(side), to = someone(1 - side);
        if (from == TerminationId() || to == TerminationId() || held_.count({from, to}) > 0)
            return;
        std::size_t const size = oneIn(50) ? dice_() % 150'000 : dice_() % 2'000;
        Session& session = sides[side].session;
        AddressedMessage const sent = inRing(message(from, to, ++lastNumber_, size));
        auto const outcome = session.send(sent, channel(from, to));
        if (outcome == Session::Sending::Refused)
            return;
        fates[lastNumber_].life = lives_[from];
        rings_[side][{{from, to}, channel(from, to)}].push_back(sent);
        if (outcome == Session::Sending::TakenHoldBack)
            held_.insert({from, to});
        if (session.unsettledBytes() > 72 * (Session::kCredit + 150'000))
            trouble = "more is kept than the credits allow";
    }

    void act(int side) {
        for (Action const& action : sides[side].actions()) {
            switch (action.kind) {
                case Kind::Opened:
                    for (TerminationId id : present_[side])
                        sides[side].session.announce(id, oneIn(2), {});
                    break;
                case Kind::Deliver:
                    fates.at(numberIn(action.message)).proxy = proxies_[action.from];
                    if (sides[side].session.isForPresent(action))
                        waiting_[side][{action.from, action.to}].push_back(action);
                    else
                        sides[side].session.refused(Delivery(action), now_);
                    break;
                case Kind::GiveBack:
                    lookWhoseItIs(sides[side].session, action);
                    giveBack(action.message);
                    break;
                case Kind::Release:
                    release(rings_[side][{{action.from, action.to}, action.channel}], action.place);
                    break;
                case Kind::GoOn:
                    held_.erase({action.from, action.to});
                    break;
                case Kind::Ended:
                    ended(side);
                    break;
                case Kind::Drop:
                    leaveToSenders(side, action.from);
                    letGo(action.from);
                    ++proxies_[action.from];
                    sides[side].session.dropped(action.from, action.session);
                    break;
                case Kind::Show:
                case Kind::ShowSilent:
                    break;
            }
        }
    }

    /** Who has come under the id of its sender is not to have it. */
    void lookWhoseItIs(Session const& session, Action const& action) {
        Fate const& fate = fates.at(numberIn(action.message));
        bool const isPassedOn =
            action.session == session.figures().ended && session.isForPresent(action);
        if (isPassedOn && fate.life != lives_[action.from])
            trouble = "given back to another one of the id";
    }

    void giveBack(AddressedMessage const& message) {
        Fate& fate = fates.at(numberIn(message));
        ++fate.returned;
        fate.unreadReturnLost = false;
    }

    void release(std::deque<AddressedMessage>& ring, std::uint32_t place) {
        if (ring.empty() || place < 8 * numberIn(ring.front()) || place > 8 * numberIn(ring.back()))
            trouble = "released what was not in the ring";
        while (!ring.empty() && 8 * numberIn(ring.front()) <= place)
            ring.pop_front();
    }

    /** What a proxy has not released its senders have again when it goes. */
    void leaveToSenders(int side, TerminationId to) {
        for (auto& [key, ring] : rings_[side]) {
            if (to != TerminationId() && key.first.second != to)
                continue;
            for (AddressedMessage const& message : ring)
                giveBack(message);
            ring.clear();
        }
    }

    /** All proxies have gone: none holds anybody back, what has been taken in is let out, and what
     * is in rings will be read. */
    void ended(int side) {
        leaveToSenders(side, {});
        for (auto at = held_.begin(); at != held_.end();)
            at = at->first.slotId() == side + 1 ? held_.erase(at) : std::next(at);
        for (auto& [pair, waiting] : waiting_[side]) {
            for (Waiting const& one : waiting)
                deliver(side, one.message);
            waiting.clear();
        }
        unread_[side].clear();
    }

    void settleSome(int side, bool faults) {
        for (auto& [pair, waiting] : waiting_[side]) {
            bool const slow = pair.second.nameId() % 2 == 0;
            for (int i = 0; i < 8 && !waiting.empty() && !(slow && faults && !oneIn(20)); ++i) {
                Waiting const one = waiting.front();
                waiting.pop_front();
                if (present_[side].count(pair.second) == 0) {
                    sides[side].session.refused(Delivery(one), now_);
                    continue;
                }
                deliver(side, one.message);
                sides[side].session.settled(Delivery(one), now_);
            }
        }
        while (!unread_[side].empty() && oneIn(2))
            unread_[side].pop_front();
    }

    void deliver(int side, AddressedMessage const& message) {
        std::uint32_t const number = numberIn(message);
        ++fates.at(number).delivered;
        std::uint32_t& last = lastOf_[{message.originator(), message.destination()}];
        if (number <= last)
            trouble = "out of order";
        last = number;
        unread_[side].push_back(message);
    }

    /** From `side` to the other one. Pieces stay in order, but for those that are swapped. */
    void carry(int side, bool faults) {
        auto& way = ways_[side];
        for (Sent& sent : sides[side].pieces(now_)) {
            if (faults && (oneIn(2000) || (now_ < cutUntil_[side] && oneIn(3))))
                continue;
            sent.at = now_ + (1 + dice_() % 3) * kMillisecond;
            way.push_back(sent);
            if (faults && oneIn(2000))
                way.push_back(sent);
            if (faults && way.size() > 1 && oneIn(2000))
                std::swap(way[way.size() - 1], way[way.size() - 2]);
            if (oneIn(50))
                former_[side] = sent;
            if (faults && oneIn(2000))
                sides[1 - side].take(former_[side], now_);
        }
        while (!way.empty() && way.front().at <= now_ && now_ >= cutUntil_[side]) {
            sides[1 - side].take(way.front(), now_);
            way.pop_front();
        }
    }

    std::mt19937 dice_;
    long long now_ = 1'000'000'000;
    std::set<TerminationId> present_[2];
    std::map<PairKey, std::deque<Waiting>> waiting_[2];
    // From senders, not released, by channels.
    std::map<std::pair<PairKey, std::uint32_t>, std::deque<AddressedMessage>> rings_[2];
    std::list<AddressedMessage> unread_[2];  // in rings to destinations
    std::deque<Sent> ways_[2];
    Sent former_[2];  // said long ago, perhaps in an earlier session
    long long cutUntil_[2] = {};
    bool sees_[2] = {};
    std::set<PairKey> held_;
    std::map<PairKey, std::uint32_t> lastOf_;
    std::map<TerminationId, std::uint32_t> lives_, proxies_;  // of each id
    std::uint32_t lastNumber_ = 0;
};

class SessionOverBus : public testing::TestWithParam<unsigned> {};

TEST_P(SessionOverBus, nothing_is_doubled_all_is_accounted_for_and_both_end_up_open) {
    testsupport::LogCapture const log;
    Machines machines(GetParam());
    machines.run(10'000, true);
    machines.run(8'000, false);
    EXPECT_EQ(machines.trouble, "");
    EXPECT_GT(machines.fates.size(), 1000u);
    for (auto const& [number, fate] : machines.fates) {
        ASSERT_LE(fate.delivered, 1) << number;
        ASSERT_LE(fate.returned, 1) << number;
        ASSERT_GE(fate.delivered + fate.returned + fate.unreadReturnLost, 1) << number;
    }
    for (Side& side : machines.sides) {
        EXPECT_EQ(side.session.state(), Session::State::Open);
        EXPECT_EQ(side.session.unsettledBytes(), 0u);
        EXPECT_GT(side.session.figures().ended, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, SessionOverBus, testing::Range(1u, 5u));

}  // namespace
