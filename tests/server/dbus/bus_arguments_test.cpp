// SPDX-License-Identifier: LGPL-2.1-or-later
#include "interposers.hpp"
#include "server/dbus/bus_arguments.hpp"
#include "message_fixture.hpp"
#include "test_properties.hpp"

#include <tarvek/common/exceptions.hpp>

#include <boost/throw_exception.hpp>

#include "support/private_bus.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

using tarvek::server::dbus::append_string_argument;
using tarvek::server::dbus::find_property;
using tarvek::server::dbus::InboundContainerGuard;
using tarvek::server::dbus::NameList;
using tarvek::server::dbus::OutboundContainerGuard;
using tarvek::server::dbus::read_string_argument;
using tarvek::server::dbus::SDBusInboundMessage;
using tarvek::server::dbus::SDBusOutboundMessage;
using tarvek::test::expect_failure;
using tarvek::test::MessagePtr;

namespace {

class BusArgumentsTest : public tarvek::test::OfflineMessageTest {
protected:
    std::vector<std::string> walk(NameList& names)
    {
        std::vector<std::string> seen;
        for (auto position = names.begin(); position != names.end(); ++position)
            seen.emplace_back(*position.position());
        return seen;
    }
};

} // namespace

TEST_F(BusArgumentsTest, ReadStringArgumentReturnsThePointerIntoTheMessage)
{
    message("s", "name");
    EXPECT_STREQ(read_string_argument(call.get()), "name");
}

TEST_F(BusArgumentsTest, ReadStringArgumentTellsTheEndOfTheContainerByALengthError)
{
    message("as", 0);
    ASSERT_GT(sd_bus_message_enter_container(call.get(), 'a', "s"), 0);
    expect_failure<tarvek::length_error>([&] { read_string_argument(call.get()); }, "No more elements to read");
}

TEST_F(BusArgumentsTest, ReadStringArgumentOfAnotherTypeFailsWithCouldNotRead)
{
    message("i", 1);
    try {
        read_string_argument(call.get());
        ADD_FAILURE() << "no exception";
    } catch (tarvek::system_error const& e) {
        EXPECT_EQ(e.code().value(), ENXIO);
        EXPECT_EQ(std::string(e.what()).rfind("could not read", 0), 0u);
    }
}

TEST_F(BusArgumentsTest, AppendStringArgumentThatDoesNotFitFailsWithCouldNotAppend)
{
    ASSERT_GE(sd_bus_message_open_container(call.get(), 'v', "i"), 0);
    expect_failure<tarvek::system_error>([&] { append_string_argument(call.get(), "x"); }, "could not append");
}

TEST(FindProperty, RaisesUnknownPropertyNamingTheInterfaceAndTheName)
{
    tarvek::test::IntProperty level("Level", 1);
    auto const properties = tarvek::test::index_of({&level});
    EXPECT_EQ(&find_property("com.omno.Test", properties, "Level"), &level);
    expect_failure<tarvek::unknown_property>([&] { find_property("com.omno.Test", properties, "Colour"); },
                                             "Interface: com.omno.Test has no property named Colour");
}

TEST_F(BusArgumentsTest, AnOutboundGuardClosesItsContainerWhenItsScopeEnds)
{
    SDBusOutboundMessage outbound(call.get());
    {
        OutboundContainerGuard guard(outbound, 'a', "i");
        EXPECT_EQ(outbound.depth(), 1u);
    }
    EXPECT_EQ(outbound.depth(), 0u);
}

TEST_F(BusArgumentsTest, AnOutboundGuardAtAnotherLevelRaisesInvalidStateError)
{
    SDBusOutboundMessage outbound(call.get());
    OutboundContainerGuard guard(outbound, 'a', "ai");
    outbound.open_container('a', "i");
    expect_failure<tarvek::invalid_state_error>([&] { guard.end(); }, "Unexpected container level 1");
    outbound.close_container();
}

TEST_F(BusArgumentsTest, AnInboundGuardSkipsWhatWasLeftUnreadAndLeavesTheContainer)
{
    message("aii", 3, 1, 2, 3, 9);
    SDBusInboundMessage inbound(call.get());
    {
        InboundContainerGuard guard(inbound, 'a', "i");
        EXPECT_EQ(read_int(), 1);
    }
    EXPECT_EQ(inbound.depth(), 0u);
    EXPECT_EQ(read_int(), 9);
}

TEST_F(BusArgumentsTest, AnInboundGuardAtAnotherLevelRaisesInternalError)
{
    message("aaii", 1, 1, 5, 9);
    SDBusInboundMessage inbound(call.get());
    InboundContainerGuard guard(inbound, 'a', "ai");
    inbound.enter_container('a', "i");
    expect_failure<tarvek::internal_error>([&] { guard.end(); }, "Unexpected container level 1");
    // The failed end has skipped the inner array; leave it so that the guard ends well.
    inbound.exit_container();
}

TEST_F(BusArgumentsTest, AFailingEndTestCountsAsTheEndInAGuard)
{
    tarvek::test::Faults scope;
    message("aii", 1, 1, 9);
    SDBusInboundMessage inbound(call.get());
    InboundContainerGuard guard(inbound, 'a', "i");
    EXPECT_EQ(read_int(), 1);
    tarvek::test::faults.at_end = -EIO;
    tarvek::test::faults.skip = -EIO;
    guard.end();
    tarvek::test::faults.at_end = 0;
    EXPECT_EQ(tarvek::test::calls.skip, 0);
    EXPECT_EQ(read_int(), 9);
}

TEST_F(BusArgumentsTest, AFailingSkipInAGuardRaisesCouldNotSkip)
{
    tarvek::test::Faults scope;
    message("ai", 1, 1);
    SDBusInboundMessage inbound(call.get());
    InboundContainerGuard guard(inbound, 'a', "i");
    tarvek::test::faults.skip = -EIO;
    expect_failure<tarvek::system_error>([&] { guard.end(); }, "could not skip");
    tarvek::test::faults.skip = 0;
}

TEST_F(BusArgumentsTest, AGuardThatFindsAnotherLevelAtTheEndOfItsScopeLeavesItOpen)
{
    SDBusOutboundMessage outbound(call.get());
    {
        OutboundContainerGuard guard(outbound, 'a', "ai");
        outbound.open_container('a', "i");
    }
    // The guard raised nothing and closed nothing: both levels are still open.
    EXPECT_EQ(outbound.depth(), 2U);
}

TEST_F(BusArgumentsTest, AGuardEndingWhileAnExceptionUnwindsLetsTheFirstFailureThrough)
{
    tarvek::test::Faults scope;
    message("ai", 1, 1);
    SDBusInboundMessage inbound(call.get());
    expect_failure<tarvek::system_error>(
        [&] {
            InboundContainerGuard guard(inbound, 'a', "i");
            tarvek::test::faults.skip = -EBADMSG;
            int const r = sd_bus_message_skip(inbound.get(), nullptr);
            boost::throw_exception(tarvek::system_error(-r, "could not skip"));
        },
        "could not skip");
    tarvek::test::faults.skip = 0;
}

TEST_F(BusArgumentsTest, ANameListWalksTheNamesInOrder)
{
    message("asi", 3, "a", "b", "a", 9);
    SDBusInboundMessage inbound(call.get());
    {
        NameList names(inbound);
        EXPECT_EQ(walk(names), (std::vector<std::string>{"a", "b", "a"}));
        // A second walk starts again at the first name.
        EXPECT_EQ(walk(names), (std::vector<std::string>{"a", "b", "a"}));
    }
    EXPECT_EQ(read_int(), 9);
}

TEST_F(BusArgumentsTest, ANameListOfAnEmptyArrayStartsOnANullName)
{
    message("as", 0);
    SDBusInboundMessage inbound(call.get());
    NameList names(inbound);
    auto position = names.begin();
    ASSERT_NE(position, names.end());
    ASSERT_NE(position.position(), nullptr);
    EXPECT_EQ(*position.position(), nullptr);
    ++position;
    EXPECT_EQ(position, names.end());
}
