// Who gets a connection slot, on its own: per-uid shares, making room by closing quiet
// connections, and the status slots for when everyone is busy.
#include <gtest/gtest.h>

#include <vector>

#include "helper/ClientAdmission.h"

namespace kelvo::helperd {
namespace {

using Connection = ClientAdmission::Connection;
using Slot = ClientAdmission::Slot;
using namespace std::chrono_literals;

const ClientAdmission::Clock::time_point kStart{};

// `count` ordinary connections of `uid`, quiet, never asked anything, the first one oldest.
void add(std::vector<Connection>& connections, uid_t uid, std::size_t count, bool engaged = false) {
    for (std::size_t i = 0; i < count; ++i) {
        Connection c;
        c.id = connections.size() + 1;
        c.uid = uid;
        c.engaged = engaged;
        c.lastActivity = kStart + std::chrono::milliseconds(connections.size());
        connections.push_back(c);
    }
}

TEST(HelperClientAdmission, RoomIsGivenWithoutClosingAnything) {
    std::vector<Connection> connections;
    add(connections, 1000, ClientAdmission::kMaxPerUid - 1);
    add(connections, 1001, 10);
    const auto decision = ClientAdmission::decide(1000, connections);
    EXPECT_TRUE(decision.admitted);
    EXPECT_EQ(decision.slot, Slot::ordinary);
    EXPECT_FALSE(decision.evict.has_value());
}

TEST(HelperClientAdmission, AUidAtItsShareMakesRoomFromItsOwnQuietConnections) {
    std::vector<Connection> connections;
    add(connections, 1001, 1);  // the oldest connection of all, but another user's
    add(connections, 1000, ClientAdmission::kMaxPerUid);
    const auto decision = ClientAdmission::decide(1000, connections);
    ASSERT_TRUE(decision.admitted);
    EXPECT_EQ(decision.slot, Slot::ordinary);
    ASSERT_TRUE(decision.evict.has_value());
    EXPECT_EQ(*decision.evict, 2u);  // uid 1000's oldest

    // Other users are not held back by uid 1000's share.
    const auto other = ClientAdmission::decide(1002, connections);
    EXPECT_TRUE(other.admitted);
    EXPECT_FALSE(other.evict.has_value());
}

TEST(HelperClientAdmission, AConnectionThatNeverAskedAnythingGoesFirst) {
    std::vector<Connection> connections;
    add(connections, 1000, ClientAdmission::kMaxPerUid);
    for (Connection& c : connections) c.everRequested = true;
    connections[0].lastActivity = kStart + 1h;  // just asked something
    connections[5].everRequested = false;
    connections[5].lastActivity = kStart + 2h;  // connected last, and silent since
    auto decision = ClientAdmission::decide(1000, connections);
    ASSERT_TRUE(decision.evict.has_value());
    EXPECT_EQ(*decision.evict, connections[5].id);

    connections[5].everRequested = true;
    decision = ClientAdmission::decide(1000, connections);
    ASSERT_TRUE(decision.evict.has_value());
    EXPECT_EQ(*decision.evict, connections[1].id);  // the longest quiet now
}

TEST(HelperClientAdmission, AFullTableMakesRoomFromTheUidWithTheMostConnections) {
    std::vector<Connection> connections;
    add(connections, 1001, 12);
    add(connections, 1002, ClientAdmission::kMaxPerUid);
    add(connections, 1003, ClientAdmission::kMaxPerUid);
    add(connections, 1004, ClientAdmission::kMaxPerUid);
    add(connections, 1005, ClientAdmission::kMaxClients - connections.size());
    ASSERT_EQ(connections.size(), ClientAdmission::kMaxClients);
    const auto decision = ClientAdmission::decide(1006, connections);
    ASSERT_TRUE(decision.admitted);
    EXPECT_EQ(decision.slot, Slot::ordinary);
    ASSERT_TRUE(decision.evict.has_value());
    EXPECT_EQ(*decision.evict, 13u);  // uid 1002's oldest: 1002, 1003 and 1004 have the most
}

TEST(HelperClientAdmission, EngagedConnectionsAreNeverClosedForANewcomer) {
    std::vector<Connection> connections;
    add(connections, 1000, ClientAdmission::kMaxPerUid, /*engaged=*/true);
    auto decision = ClientAdmission::decide(1000, connections);
    ASSERT_TRUE(decision.admitted);
    EXPECT_EQ(decision.slot, Slot::status);
    EXPECT_FALSE(decision.evict.has_value());

    // One quiet connection among them is the one that goes.
    connections[7].engaged = false;
    decision = ClientAdmission::decide(1000, connections);
    EXPECT_EQ(decision.slot, Slot::ordinary);
    EXPECT_EQ(decision.evict, connections[7].id);
}

TEST(HelperClientAdmission, StatusSlotsAreSharedThenTheQuietestGoesThenNobody) {
    std::vector<Connection> connections;
    add(connections, 1000, ClientAdmission::kMaxPerUid, /*engaged=*/true);
    for (std::size_t i = 0; i < ClientAdmission::kStatusSlots; ++i) {
        const auto decision = ClientAdmission::decide(1000, connections);
        ASSERT_TRUE(decision.admitted);
        ASSERT_EQ(decision.slot, Slot::status);
        ASSERT_FALSE(decision.evict.has_value());
        Connection status;
        status.id = 100 + i;
        status.uid = 1000;
        status.slot = Slot::status;
        status.lastActivity = kStart + std::chrono::seconds(10 - i);
        connections.push_back(status);
    }
    auto decision = ClientAdmission::decide(1000, connections);
    ASSERT_TRUE(decision.admitted);
    EXPECT_EQ(decision.slot, Slot::status);
    EXPECT_EQ(decision.evict, 100 + ClientAdmission::kStatusSlots - 1);  // quiet the longest

    for (Connection& c : connections) c.engaged = true;
    decision = ClientAdmission::decide(1000, connections);
    EXPECT_FALSE(decision.admitted);
    EXPECT_EQ(decision.refusal, "too many clients: uid 1000 has " +
                                    std::to_string(ClientAdmission::kMaxPerUid) +
                                    " connections already");
    // A full table of several users says only that.
    std::vector<Connection> table;
    for (uid_t uid = 2000; table.size() < ClientAdmission::kMaxClients; ++uid) {
        add(table, uid, ClientAdmission::kMaxPerUid / 2, /*engaged=*/true);
    }
    for (std::size_t i = 0; i < ClientAdmission::kStatusSlots; ++i) {
        Connection status;
        status.id = 500 + i;
        status.slot = Slot::status;
        status.engaged = true;
        table.push_back(status);
    }
    decision = ClientAdmission::decide(3000, table);
    EXPECT_FALSE(decision.admitted);
    EXPECT_EQ(decision.refusal, "too many clients");
}

TEST(HelperClientAdmission, StatusSlotsServeOnlyStatusAndAreShortLived) {
    namespace hp = helper_protocol;
    EXPECT_TRUE(ClientAdmission::allowedInStatusSlot(hp::Op::version));
    EXPECT_TRUE(ClientAdmission::allowedInStatusSlot(hp::Op::list));
    for (hp::Op op : {hp::Op::setTarget, hp::Op::release, hp::Op::releaseAll, hp::Op::readCounter,
                      hp::Op::renew}) {
        EXPECT_FALSE(ClientAdmission::allowedInStatusSlot(op)) << hp::opName(op);
    }
    EXPECT_LT(ClientAdmission::idleLimit(Slot::status), ClientAdmission::idleLimit(Slot::ordinary));
    // A client that holds fans loses them to the lease before it is closed for silence.
    EXPECT_GT(ClientAdmission::idleLimit(Slot::ordinary),
              std::chrono::milliseconds(hp::kLeaseExpiryMs));
}

}  // namespace
}  // namespace kelvo::helperd
