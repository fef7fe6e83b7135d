// SPDX-License-Identifier: LGPL-2.1-or-later
#include "interposers.hpp"
#include "server/dbus/sdbus_error.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/server/dbus/sdbus_message.hpp>

#include "message_fixture.hpp"
#include "support/private_bus.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

using tarvek::server::dbus::SDBusError;
using tarvek::server::dbus::SDBusInboundMessage;
using tarvek::server::dbus::SDBusOutboundMessage;
using tarvek::test::MessagePtr;

using tarvek::test::expect_failure;

namespace {

class SDBusMessageTest : public ::testing::Test {
protected:
    tarvek::test::PrivateBus daemon;
    tarvek::test::BusPtr bus{daemon.connect()};

    // A call that went through the daemon to this connection, holding `types` and `args`.
    template <class... Args>
    MessagePtr received_call(char const* types, Args... args)
    {
        MessagePtr call = tarvek::test::new_call_to_self(bus.get());
        EXPECT_GE(sd_bus_message_append(call.get(), types, args...), 0);
        return tarvek::test::send_to_self(bus.get(), call.get());
    }
};

} // namespace

TEST_F(SDBusMessageTest, TwoHandlesKeepTheMessageAliveAndKeepTheirOwnStacks)
{
    MessagePtr call = tarvek::test::new_call_to_self(bus.get());
    sd_bus_message* const raw = call.get();
    auto first = std::make_unique<SDBusOutboundMessage>(raw);
    call.reset();
    first->open_container('a', "i");
    SDBusOutboundMessage const second(*first);
    EXPECT_EQ(second.get(), raw);
    EXPECT_EQ(first->depth(), 1u);
    EXPECT_EQ(second.depth(), 0u);
    first.reset();
    // The first handle closed only its own array; the second still owns the message.
    int const value = 3;
    EXPECT_GE(sd_bus_message_append_basic(second.get(), 'i', &value), 0);
    EXPECT_STREQ(sd_bus_message_get_signature(second.get(), 1), "aii");
}

TEST_F(SDBusMessageTest, AnInboundHandleDestroyedTwoContainersDeepLeavesBothLevels)
{
    MessagePtr call = received_call("a(is)i", 2, 1, "one", 2, "two", 42);
    {
        SDBusInboundMessage inbound(call.get());
        EXPECT_EQ(inbound.enter_container('a', "(is)"), 1u);
        EXPECT_EQ(inbound.enter_container('r', "is"), 2u);
        int first = 0;
        ASSERT_GT(sd_bus_message_read_basic(call.get(), 'i', &first), 0);
        EXPECT_EQ(first, 1);
    }
    int outer = 0;
    ASSERT_GT(sd_bus_message_read_basic(call.get(), 'i', &outer), 0);
    EXPECT_EQ(outer, 42);
}

TEST_F(SDBusMessageTest, EnterContainerOfAnotherKindFailsAndRecordsNothing)
{
    MessagePtr call = received_call("ai", 0);
    SDBusInboundMessage inbound(call.get());
    try {
        inbound.enter_container('r', "i");
        ADD_FAILURE() << "no exception";
    } catch (tarvek::system_error const& e) {
        EXPECT_EQ(e.code().value(), ENXIO);
        EXPECT_EQ(std::string(e.what()).rfind("sd_bus_message_enter_container failed", 0), 0u);
    }
    EXPECT_EQ(inbound.depth(), 0u);
}

TEST_F(SDBusMessageTest, EnterContainerAtTheEndOfAnEmptyArrayRaisesAndRecordsNothing)
{
    MessagePtr call = received_call("a(sv)", 0);
    SDBusInboundMessage inbound(call.get());
    ASSERT_EQ(inbound.enter_container('a', "(sv)"), 1u);
    expect_failure<tarvek::length_error>([&] { inbound.enter_container('r', "sv"); }, "No more elements to read");
    // Still one level deep, so that leaving it leaves the array and nothing else.
    EXPECT_EQ(inbound.depth(), 1u);
    inbound.exit_container();
    EXPECT_EQ(inbound.depth(), 0u);
}

TEST_F(SDBusMessageTest, ExitContainerBeforeTheEndFailsWithItsText)
{
    MessagePtr call = received_call("ai", 1, 5);
    SDBusInboundMessage inbound(call.get());
    inbound.enter_container('a', "i");
    expect_failure<tarvek::system_error>([&] { inbound.exit_container(); }, "sd_bus_message_exit_container failed");
    // Leave the message readable at the outer level for the handle's own end.
    int value = 0;
    ASSERT_GT(sd_bus_message_read_basic(call.get(), 'i', &value), 0);
    ASSERT_GE(sd_bus_message_exit_container(call.get()), 0);
}

TEST_F(SDBusMessageTest, AReplyToAnEmptyInboundHandleFailsWithEmptyMessage)
{
    SDBusInboundMessage const empty(nullptr);
    expect_failure<tarvek::invalid_argument>([&] { SDBusOutboundMessage reply(empty); }, "empty message");
    SDBusError error;
    expect_failure<tarvek::invalid_argument>([&] { SDBusOutboundMessage reply(empty, std::move(error)); },
                                             "empty message");
}

TEST_F(SDBusMessageTest, AReplyToAnUnsealedCallFailsWithCouldNotCreateReplyMessage)
{
    MessagePtr call = tarvek::test::new_call_to_self(bus.get());
    SDBusInboundMessage const inbound(call.get());
    try {
        SDBusOutboundMessage reply(inbound);
        ADD_FAILURE() << "no exception";
    } catch (tarvek::system_error const& e) {
        EXPECT_EQ(e.code().value(), EPERM);
        EXPECT_EQ(std::string(e.what()).rfind("Could not create reply message", 0), 0u);
    }
}

TEST_F(SDBusMessageTest, AMethodReturnReachesTheCaller)
{
    MessagePtr call = received_call("");
    SDBusInboundMessage const inbound(call.get());
    std::uint64_t cookie = 0;
    ASSERT_GE(sd_bus_message_get_cookie(call.get(), &cookie), 0);
    SDBusOutboundMessage reply(inbound);
    int const value = 8;
    ASSERT_GE(sd_bus_message_append_basic(reply.get(), 'i', &value), 0);
    reply.send();
    MessagePtr answer = tarvek::test::receive_reply(bus.get(), cookie);
    EXPECT_EQ(sd_bus_message_is_method_error(answer.get(), nullptr), 0);
    int received = 0;
    ASSERT_GT(sd_bus_message_read_basic(answer.get(), 'i', &received), 0);
    EXPECT_EQ(received, 8);
}

TEST_F(SDBusMessageTest, AnErrorReplyLeavesTheErrorWithTheCaller)
{
    MessagePtr call = received_call("");
    SDBusInboundMessage const inbound(call.get());
    SDBusError error(tarvek::invalid_argument("bad"));
    SDBusOutboundMessage reply(inbound, std::move(error));
    EXPECT_STREQ(error.name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_STREQ(sd_bus_message_get_error(reply.get())->name, "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(SDBusMessageTest, SendingFromInsideAContainerFailsAndSendsNothingUntilTheStackIsEmpty)
{
    MessagePtr call = tarvek::test::new_call_to_self(bus.get());
    SDBusOutboundMessage outbound(call.get());
    outbound.open_container('a', "i");
    expect_failure<tarvek::invalid_state_error>([&] { outbound.send(); }, "Bad state: Inside a container");
    std::uint64_t cookie = 0;
    EXPECT_LT(sd_bus_message_get_cookie(call.get(), &cookie), 0) << "the message was sealed for sending";
    outbound.close_container();
    outbound.send();
    MessagePtr received = tarvek::test::receive_method_call(bus.get());
    EXPECT_STREQ(sd_bus_message_get_signature(received.get(), 1), "ai");
}

TEST_F(SDBusMessageTest, SendingAnEmptyHandleFailsWithNoMessageToSend)
{
    SDBusOutboundMessage empty(nullptr);
    expect_failure<tarvek::invalid_state_error>([&] { empty.send(); }, "Send: no message to send");
}

TEST_F(SDBusMessageTest, SendingAMessageWithoutABusFailsWithMessageHasNoBus)
{
    tarvek::test::Faults scope;
    MessagePtr call = tarvek::test::new_call_to_self(bus.get());
    SDBusOutboundMessage outbound(call.get());
    tarvek::test::faults.no_bus = true;
    expect_failure<tarvek::invalid_state_error>([&] { outbound.send(); }, "Send: message has no bus");
}

TEST_F(SDBusMessageTest, SendingOnAClosedConnectionFailsWithSendFailed)
{
    MessagePtr call = tarvek::test::new_call_to_self(bus.get());
    SDBusOutboundMessage outbound(call.get());
    sd_bus_close(bus.get());
    try {
        outbound.send();
        ADD_FAILURE() << "no exception";
    } catch (tarvek::system_error const& e) {
        EXPECT_EQ(e.code().value(), ENOTCONN);
        EXPECT_EQ(std::string(e.what()).rfind("send failed", 0), 0u);
    }
}

TEST_F(SDBusMessageTest, AnOutboundHandleClosesItsOpenContainersWhenItEnds)
{
    MessagePtr call = tarvek::test::new_call_to_self(bus.get());
    {
        SDBusOutboundMessage outbound(call.get());
        outbound.open_container('a', "a{sv}");
        outbound.open_container('a', "{sv}");
    }
    EXPECT_GE(sd_bus_message_seal(call.get(), 1, 0), 0);
    EXPECT_STREQ(sd_bus_message_get_signature(call.get(), 1), "aa{sv}");
}
