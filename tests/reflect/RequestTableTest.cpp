#include "reflect/RequestTable.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <vector>

#include "reflect/OngoingRequest.h"

namespace {

using Beginning = RequestTable::Beginning;

constexpr unsigned int kSeed = 0x00021234;
constexpr unsigned int kStep = 0x00100000;

TEST(RequestTable, idsCountInTheTopTwelveBitsAndWrap) {
    auto const table = std::make_unique<RequestTable>(kSeed);
    OngoingRequest record;
    EXPECT_EQ(table->begin(record, 5u, false).id, 0x00121234u);
    EXPECT_EQ(table->begin(record, 5u, false).id, 0x00221234u);
    auto const full = std::make_unique<RequestTable>(0xFFF00005u);
    EXPECT_EQ(full->begin(record, 5u, false).id, 5u);
}

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

TEST(RequestTable, idsOfOtherBrokersFindNobody) {
    auto const table = std::make_unique<RequestTable>(kSeed);
    OngoingRequest record;
    unsigned int const id = table->begin(record, 7u, true).id;
    EXPECT_EQ(table->take(id ^ 1), nullptr);
    EXPECT_EQ(table->take(id + kStep), nullptr);
    EXPECT_EQ(table->take(id), &record);
    EXPECT_EQ(table->take(id), nullptr) << "once only";
}

TEST(RequestTable, departureTakesOutTheRequestsToThatTargetOnly) {
    auto const table = std::make_unique<RequestTable>(kSeed);
    std::vector<OngoingRequest> records(3);
    table->begin(records[0], 7u, true);
    unsigned int const other = table->begin(records[1], 8u, true).id;
    table->begin(records[2], 7u, true);
    EXPECT_EQ(table->takeAllOf(7u), (std::vector<OngoingRequest*>{&records[0], &records[2]}));
    EXPECT_EQ(table->take(other), &records[1]);
}

TEST(RequestTable, closedTableGivesEverythingOutAndNothingNew) {
    auto const table = std::make_unique<RequestTable>(kSeed);
    OngoingRequest record;
    table->begin(record, 7u, true);
    std::vector<RequestTable::Entry> const entries = table->close();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].record, &record);
    EXPECT_EQ(table->begin(record, 7u, true).beginning, Beginning::closed);
}

}  // namespace
