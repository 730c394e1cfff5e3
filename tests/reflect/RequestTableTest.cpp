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

}  // namespace
