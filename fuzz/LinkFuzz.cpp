// What another link sends: records in pieces, in a session that is open, between messages of ours.
#include <algorithm>

#include "FuzzProcess.h"
#include "platform/transport/link/Session.h"

namespace {

using Link::Action;
using Link::Session;
using Transport::TerminationId;

constexpr TerminationId kOurs(7, 2, 3);
constexpr TerminationId kTheirs(7, 1, 3);

/** A link and the peer that feeds it; both know the time. */
class Talk {
public:
    Talk() : session_(setup()) {
        session_.peerSeen(now_);
        head_.fromToken = 1;
        greet();
    }

    /** A piece with these records; the session is opened anew if it has ended. */
    void take(std::uint8_t const* records, std::size_t size) {
        now_ += 1'000'000;
        if (session_.state() != Session::State::Open)
            greet();
        if (size > 0)
            ++head_.number;
        session_.pieceArrived(head_, records, size, now_);
        answer();
    }

private:
    static Session::Setup setup() {
        Session::Setup setup;
        setup.ownSlot = 2;
        setup.peerSlot = 1;
        setup.groups.set(3);
        setup.newToken = [token = std::uint64_t{9}]() mutable { return token++; };
        return setup;
    }

    void greet() {
        now_ += 1'000'000'000;
        session_.nextPiece(piece_, now_);
        head_.number = head_.taken = 0;
        head_.toToken = piece_.head.fromToken;
        session_.pieceArrived(head_, nullptr, 0, now_);
        if (session_.state() != Session::State::Open)
            std::abort();
        answer();
    }

    /** Settles and refuses by turns, and sends where somebody is. */
    void answer() {
        actions_.clear();
        session_.takeActions(actions_);
        for (Action const& action : actions_)
            carryOut(action);
        session_.send(message(), 0);
        session_.timePassed(now_);
        while (session_.nextPiece(piece_, now_))
            head_.taken = piece_.head.number;
        if (session_.unsettledBytes() > Session::kCreditOfAll + 1000 * (++sent_ + 1))
            std::abort();
    }

    void carryOut(Action const& action) {
        if (action.kind == Action::Kind::Opened)
            session_.announce(kOurs, true, "ours");
        if (action.kind != Action::Kind::Deliver)
            return;
        if (action.to != kOurs || action.message.size() > Transport::kLargestMessage)
            std::abort();
        if (action.serial % 3 == 0)
            session_.refused(Link::Delivery(action), now_);
        else
            session_.settled(Link::Delivery(action), now_);
        if (action.serial % 3 == 1)
            session_.returned(action.message, action.session, false);
    }

    static Transport::AddressedMessage message() {
        auto made = Transport::AddressedMessage::allocate(100);
        made.originator(kOurs);
        made.destination(kTheirs);
        return made;
    }

    Session session_;
    Link::Piece piece_;
    Link::PieceHead head_;
    Link::Actions actions_;
    long long now_ = 1;
    std::size_t sent_ = 0;
};

/** Pieces, behind two bytes with the size of each. */
void runLink(std::uint8_t const* data, std::size_t size) {
    Talk talk;
    while (size >= 2) {
        std::size_t const length = std::min<std::size_t>(data[0] | data[1] << 8, size - 2);
        talk.take(data + 2, length);
        data += 2 + length;
        size -= 2 + length;
    }
}

}  // namespace

FUZZ_TARGET(link, runLink)
