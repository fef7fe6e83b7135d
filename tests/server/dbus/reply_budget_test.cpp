// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/reply_budget.hpp"

#include "server/dbus/sdbus_error.hpp"

#include <tarvek/serialization/sdbus_serializer.hpp>
#include <tarvek/server/dbus/sdbus_message.hpp>

#include "support/private_bus.hpp"

#include <gtest/gtest.h>

#include <string>

using tarvek::server::dbus::BoundedSerializer;
using tarvek::server::dbus::limits_exceeded;
using tarvek::server::dbus::ReplyBudget;

namespace {

constexpr std::uint64_t mib = 1ULL << 20;

TEST(ReplyBudget, RefusesAnArrayOver64MiB)
{
    ReplyBudget budget(true);
    budget.charge(64 * mib);
    EXPECT_THROW(budget.charge(1), limits_exceeded);
}

TEST(ReplyBudget, CountsEachTopLevelArrayOnItsOwn)
{
    ReplyBudget budget(false);
    budget.open_array();
    budget.charge(60 * mib);
    budget.close_array();
    budget.open_array();
    EXPECT_NO_THROW(budget.charge(60 * mib));
    budget.close_array();
}

TEST(ReplyBudget, RefusesAMessageOver128MiBOutsideArrays)
{
    ReplyBudget budget(false);
    budget.charge(100 * mib);
    EXPECT_THROW(budget.charge(28 * mib), limits_exceeded);
}

TEST(ReplyBudget, SaysInItsTextThatTheReplyIsTooLarge)
{
    ReplyBudget budget(true);
    try {
        budget.charge(65 * mib);
        FAIL() << "no exception";
    } catch (limits_exceeded const& error) {
        EXPECT_EQ(std::string(error.what()),
            "Reply too large for the bus: an array may hold at most 67108864 bytes");
    }
}

TEST(BoundedSerializer, StopsAStringBeforeItReachesTheMessage)
{
    tarvek::test::OfflineConnection connection;
    tarvek::test::MessagePtr call = tarvek::test::new_call(connection.get());
    tarvek::server::dbus::SDBusOutboundMessage message(call.get());
    tarvek::serialization::SDBusSerializer sink(message);
    ReplyBudget budget(true);
    budget.charge(64 * mib - 10);
    BoundedSerializer bounded(sink, budget);
    EXPECT_THROW(bounded.write("more than ten bytes", 19, false), limits_exceeded);
    // Nothing was appended: the message is still at its end and empty.
    EXPECT_EQ(sd_bus_message_is_empty(call.get()), 1);
}

} // namespace
