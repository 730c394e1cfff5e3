#include "reflect/broker/RequestTable.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <vector>

#include "reflect/broker/OngoingRequest.h"

namespace {

using Beginning = RequestTable::Beginning;

constexpr unsigned int kSeed = 0x00021234;
constexpr unsigned int kStep = 0x00100000;

TEST(RequestTable, skipsIdsThatAreOutstanding) {
    auto const table = std::make_unique<RequestTable>(0xFFE00005u);
    OngoingRequest waiting;
    OngoingRequest other;
    EXPECT_EQ(table->begin(waiting, 7u, true).id, 0xFFF00005u);
    for (unsigned int i = 0; i < RequestTable::kCapacity - 1; ++i)
        EXPECT_EQ(table->begin(other, 7u, false).id, 5u + i * kStep);
    EXPECT_EQ(table->begin(other, 7u, false).id, 5u) << "the outstanding one is passed over";
}

TEST(RequestTable, with4096OutstandingThereIsNoId) {
    auto const table = std::make_unique<RequestTable>(kSeed);
    std::vector<OngoingRequest> records(RequestTable::kCapacity);
    std::set<unsigned int> ids;
    for (OngoingRequest& record : records) {
        RequestTable::Ticket const ticket = table->begin(record, 7u, true);
        ASSERT_EQ(ticket.beginning, Beginning::begun);
        EXPECT_EQ(ticket.id & 0xFFFFF, 0x21234u);
        ids.insert(ticket.id);
    }
    EXPECT_EQ(ids.size(), RequestTable::kCapacity);
    OngoingRequest late;
    RequestTable::Ticket const none = table->begin(late, 7u, true);
    EXPECT_EQ(none.beginning, Beginning::exhausted);
    EXPECT_EQ(none.id, kSeed) << "the last id, after a whole round";
    EXPECT_EQ(table->take(kSeed + 3 * kStep), &records[2]);
    EXPECT_EQ(table->begin(late, 7u, true).id, kSeed + 3 * kStep);
}

TEST(RequestTable, aCallEndsItsOwnEntryOnly) {
    auto const table = std::make_unique<RequestTable>(kSeed);
    OngoingRequest cancelled;
    unsigned int const id = table->begin(cancelled, 7u, true).id;
    EXPECT_EQ(table->take(id), &cancelled) << "to deliver to it";
    // All other ids are given meanwhile, and this one again.
    OngoingRequest other;
    while (table->begin(other, 7u, false).id != id - kStep) {
    }
    OngoingRequest next;
    EXPECT_EQ(table->begin(next, 7u, true).id, id);
    EXPECT_FALSE(table->withdraw(id, cancelled));
    EXPECT_TRUE(table->withdraw(id, next));
    EXPECT_FALSE(table->withdraw(id, next));
}

TEST(RequestTable, closedItAnswersAllThatWaitAndTakesNoMore) {
    auto const table = std::make_unique<RequestTable>(kSeed);
    OngoingRequest waiting;
    unsigned int const id = table->begin(waiting, 7u, true).id;
    auto const entries = table->close();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].record, &waiting);
    EXPECT_EQ(table->take(id), nullptr);
    EXPECT_FALSE(table->withdraw(id, waiting));
    EXPECT_TRUE(table->takeAllOf(7u).empty());
    EXPECT_EQ(table->begin(waiting, 7u, true).beginning, Beginning::closed);
    EXPECT_TRUE(table->close().empty());
}

}  // namespace
