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
    Session::Sending send(std::uint32_t number, std::size_t size = 100) {
        return a.session.send(message(here, there, number, size));
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
    auto const back = a.actions();
    ASSERT_EQ(kinds(back), std::vector<Kind>{Kind::GiveBack});
    EXPECT_EQ(numberIn(back[0].message), 2u);
}

TEST_F(SessionTest, a_pair_beyond_its_credit_is_held_back_and_others_are_not) {
    TerminationId const other(8, 2, kGroup);
    b.session.announce(other, false, {});
    passAll();
    std::uint32_t number = 0;
    while (send(++number, 60'000) == Session::Sending::Taken)
        ASSERT_LT(number, 100u);
    EXPECT_EQ(a.session.send(message(here, other, 1, 100)), Session::Sending::Taken);
    passAll();
    for (Action const& action : b.actions())
        if (action.kind == Kind::Deliver && action.to == there)
            b.session.settled(Delivery(action), now);
    a.actions();
    passAll();
    EXPECT_EQ(kinds(a.actions()), std::vector<Kind>{Kind::GoOn});
}

TEST_F(SessionTest, those_who_do_not_read_use_up_the_credit_of_all_and_others_still_get_on) {
    for (unsigned short name = 11; name < 15; ++name) {
        TerminationId const stopped(name, 2, kGroup);
        b.session.announce(stopped, false, {});
        passAll();
        EXPECT_EQ(a.session.send(message(here, stopped, 1, 16u << 20)),
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
        EXPECT_EQ(kinds(a.actions()), std::vector<Kind>{Kind::GoOn});
    }
}

TEST_F(SessionTest, who_has_gone_leaves_nothing_behind_that_is_neither_settled_nor_given_back) {
    send(1);
    passAll();
    send(2, 300'000);
    b.session.withdraw(there);
    pass(b, a);
    EXPECT_EQ(a.session.queuedBytes(), 0u) << "what nobody takes is not sent";
    passAll();
    auto const actions = a.actions();
    EXPECT_EQ(kinds(actions), (std::vector<Kind>{Kind::GiveBack, Kind::GiveBack, Kind::Drop}));
    EXPECT_EQ(send(3), Session::Sending::Refused);
    EXPECT_EQ(a.session.unsettledBytes(), 0u);
    a.session.send(message(here, there, 4, 10));
    passAll();
    EXPECT_EQ(a.session.figures().ended + b.session.figures().ended, 0u);
}

TEST_F(SessionTest, nothing_confirmed_means_a_probe_after_one_second_and_the_end_after_four) {
    send(1);
    EXPECT_EQ(a.pieces(now).size(), 1u);  // lost
    EXPECT_EQ(a.session.dueAt(), now + Session::kProbeAfter);
    EXPECT_TRUE(a.pieces(now + Session::kProbeAfter - 1).empty());
    EXPECT_EQ(a.pieces(now + Session::kProbeAfter).size(), 1u);
    EXPECT_EQ(a.session.dueAt(), now + Session::kEndAfter);
    a.pieces(now + Session::kEndAfter);
    EXPECT_EQ(kinds(a.actions()), (std::vector<Kind>{Kind::GiveBack, Kind::Ended}));
    now += Session::kEndAfter + Session::kHelloInterval;
    passAll();
    EXPECT_EQ(kinds(b.actions()), (std::vector<Kind>{Kind::Ended, Kind::Opened}));
    EXPECT_EQ(kinds(a.actions()), (std::vector<Kind>{Kind::Opened}));
}

TEST_F(SessionTest, who_has_lost_sight_for_a_moment_only_makes_the_other_one_begin_anew_too) {
    b.session.send(message(there, here, 1, 10));
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
                a.session.send(one);
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
    b.session.send(message(there, here, 1, 10));
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
    b.session.send(message(there, here, 1, 10));
    passAll();
    send(2);
    a.session.settled(Delivery(a.actions().at(0)), now);
    a.session.withdraw(here);
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
        a.session.peerLost(now);
        a.session.peerSeen(now);
        now += 200 * kMillisecond;
        passAll();
        a.session.announce(here, true, {});
        b.session.announce(there, true, {});
        passAll();
        b.actions();
        EXPECT_EQ(b.session.send(message(there, here, 3, 10)), Session::Sending::Taken);
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
        TerminationId const id(++lastName_, static_cast<unsigned char>(side + 1), kGroup);
        present_[side].insert(id);
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
        session.withdraw(gone);
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
        session.returned(message, session.figures().ended);
    }

    void sendOne(int side) {
        TerminationId const from = someone(side), to = someone(1 - side);
        if (from == TerminationId() || to == TerminationId() || held_.count({from, to}) > 0)
            return;
        std::size_t const size = oneIn(50) ? dice_() % 150'000 : dice_() % 2'000;
        Session& session = sides[side].session;
        auto const outcome = session.send(message(from, to, ++lastNumber_, size));
        if (outcome == Session::Sending::Refused)
            return;
        fates[lastNumber_];
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
                    waiting_[side][{action.from, action.to}].push_back(action);
                    break;
                case Kind::GiveBack:
                    giveBack(action.message);
                    break;
                case Kind::GoOn:
                    held_.erase({action.from, action.to});
                    break;
                case Kind::Ended:
                    ended(side);
                    break;
                case Kind::Show:
                case Kind::ShowSilent:
                case Kind::Drop:
                    break;
            }
        }
    }

    void giveBack(AddressedMessage const& message) {
        Fate& fate = fates.at(numberIn(message));
        ++fate.returned;
        fate.unreadReturnLost = false;
    }

    /** All proxies have gone: none holds anybody back, what has been taken in is let out, and what
     * is in rings will be read. */
    void ended(int side) {
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
    std::list<AddressedMessage> unread_[2];  // in rings
    std::deque<Sent> ways_[2];
    Sent former_[2];  // said long ago, perhaps in an earlier session
    long long cutUntil_[2] = {};
    bool sees_[2] = {};
    std::set<PairKey> held_;
    std::map<PairKey, std::uint32_t> lastOf_;
    unsigned short lastName_ = 0;
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
