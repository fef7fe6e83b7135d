// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/cursors.hpp"
#include "message_fixture.hpp"
#include "test_properties.hpp"

#include <tarvek/common/exceptions.hpp>

#include "support/private_bus.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

using tarvek::glue::IDeserializer;
using tarvek::glue::IProperty;
using tarvek::server::dbus::EmptyIterator;
using tarvek::server::dbus::GetManyIterator;
using tarvek::server::dbus::MethodParameterIterator;
using tarvek::server::dbus::NameList;
using tarvek::server::dbus::OutboundContainerGuard;
using tarvek::server::dbus::ResetIterator;
using tarvek::server::dbus::SDBusInboundMessage;
using tarvek::server::dbus::SDBusOutboundMessage;
using tarvek::server::dbus::SetManyIterator;
using tarvek::server::dbus::SingleValueIterator;
using tarvek::test::expect_failure;
using tarvek::test::MessagePtr;

namespace {

class CursorTest : public tarvek::test::OfflineMessageTest {
protected:
    tarvek::test::IntProperty level{"Level", 7};
    tarvek::test::IntProperty speed{"Speed", 3};
    tarvek::test::PairProperty pair{"Pair"};
    tarvek::test::ThrowingProperty broken{"Broken"};
    tarvek::server::dbus::PropertyMap properties = tarvek::test::index_of({&level, &speed, &pair, &broken});
};

using WriteElement = std::pair<IProperty&, IDeserializer&>;

} // namespace

TEST(SingleValueIterator, IsNotAtTheEndUntilTheFirstAdvance)
{
    tarvek::test::IntProperty level("Level", 1);
    tarvek::test::OfflineConnection connection;
    MessagePtr call = tarvek::test::new_call(connection.get());
    tarvek::serialization::SDBusDeserializer source(call.get());
    SingleValueIterator<WriteElement> cursor(WriteElement(level, source));
    EXPECT_FALSE(cursor.at_end());
    EXPECT_EQ(&cursor.value().first, &level);
    cursor.advance();
    EXPECT_TRUE(cursor.at_end());
    EXPECT_EQ(&cursor.value().second, &source);
}

TEST(EmptyIterator, IsAtTheEndAtOnceAndAdvanceChangesNothing)
{
    EmptyIterator<IProperty&> cursor;
    EXPECT_TRUE(cursor.at_end());
    cursor.advance();
    EXPECT_TRUE(cursor.at_end());
}

TEST(EmptyIterator, HasNoValue)
{
    EmptyIterator<WriteElement> cursor;
    expect_failure<tarvek::internal_error>([&] { cursor.value(); }, "No value (empty iterator)");
}

TEST_F(CursorTest, AMethodParameterIteratorHandsOutOneSourceUntilTheEndOfTheMessage)
{
    message("is", 4, "four");
    SDBusInboundMessage inbound(call.get());
    MethodParameterIterator cursor(inbound);
    ASSERT_FALSE(cursor.at_end());
    EXPECT_EQ(cursor.value().read_int32(), 4);
    cursor.advance();
    ASSERT_FALSE(cursor.at_end());
    EXPECT_EQ(cursor.value().read_string(), "four");
    cursor.advance();
    EXPECT_TRUE(cursor.at_end());
}

TEST_F(CursorTest, ASetManyIteratorStandsEachSourceOnTheValueOfItsProperty)
{
    message("a(sv)i", 2, "Level", "i", 10, "Speed", "i", 20, 99);
    SDBusInboundMessage inbound(call.get());
    std::vector<std::pair<std::string, int>> seen;
    {
        SetManyIterator cursor(inbound, "com.omno.Test", properties);
        while (!cursor.at_end()) {
            WriteElement element = cursor.value();
            seen.emplace_back(element.first.name().str(), element.second.read_int32());
            cursor.advance();
        }
        expect_failure<tarvek::range_error>([&] { cursor.advance(); }, "No more properties in iterator");
    }
    EXPECT_EQ(seen, (std::vector<std::pair<std::string, int>>{{"Level", 10}, {"Speed", 20}}));
    EXPECT_EQ(read_int(), 99);
}

TEST_F(CursorTest, ASetManyIteratorSkipsWhatAPropertyLeftUnread)
{
    message("a(sv)", 2, "Pair", "(ii)", 1, 2, "Level", "i", 10);
    SDBusInboundMessage inbound(call.get());
    SetManyIterator cursor(inbound, "com.omno.Test", properties);
    WriteElement first = cursor.value();
    EXPECT_EQ(&first.first, &pair);
    // The reader stops before the value.
    cursor.advance();
    ASSERT_FALSE(cursor.at_end());
    WriteElement second = cursor.value();
    EXPECT_EQ(&second.first, &level);
    EXPECT_EQ(second.second.read_int32(), 10);
    cursor.advance();
    EXPECT_TRUE(cursor.at_end());
}

TEST_F(CursorTest, ASetManyIteratorRefusesASecondValueWithoutAdvance)
{
    message("a(sv)", 1, "Level", "i", 10);
    SDBusInboundMessage inbound(call.get());
    SetManyIterator cursor(inbound, "com.omno.Test", properties);
    cursor.value();
    expect_failure<tarvek::internal_error>([&] { cursor.value(); },
                                           "SetManyIterator: do advance() between calls to value()");
}

TEST_F(CursorTest, ASetManyIteratorRefusesAValueOfAnotherTypeBeforeReadingIt)
{
    message("a(sv)i", 1, "Level", "s", "ten", 99);
    SDBusInboundMessage inbound(call.get());
    {
        SetManyIterator cursor(inbound, "com.omno.Test", properties);
        try {
            cursor.value();
            ADD_FAILURE() << "no exception";
        } catch (tarvek::system_error const& e) {
            EXPECT_EQ(e.code().value(), ENXIO);
            EXPECT_EQ(std::string(e.what()).rfind("sd_bus_message_enter_container failed", 0), 0u);
        }
    }
    EXPECT_EQ(read_int(), 99);
}

TEST_F(CursorTest, ASetManyIteratorRaisesUnknownPropertyForANameTheInterfaceLacks)
{
    message("a(sv)i", 1, "Colour", "i", 1, 99);
    SDBusInboundMessage inbound(call.get());
    {
        SetManyIterator cursor(inbound, "com.omno.Test", properties);
        expect_failure<tarvek::unknown_property>([&] { cursor.value(); },
                                                 "Interface: com.omno.Test has no property named Colour");
    }
    EXPECT_EQ(read_int(), 99);
}

TEST_F(CursorTest, AResetIteratorWalksThePropertiesOfTheNames)
{
    message("as", 2, "Speed", "Level");
    SDBusInboundMessage inbound(call.get());
    NameList names(inbound);
    ResetIterator cursor(names, "com.omno.Test", properties);
    std::vector<IProperty*> seen;
    while (!cursor.at_end()) {
        seen.push_back(&cursor.value());
        cursor.advance();
    }
    EXPECT_EQ(seen, (std::vector<IProperty*>{&speed, &level}));
    expect_failure<tarvek::range_error>([&] { cursor.advance(); }, "No more properties in iterator");
    expect_failure<tarvek::out_of_range>([&] { cursor.value(); }, "no members left in array");
}

TEST_F(CursorTest, AResetIteratorOverAnEmptyListFailsAtItsFirstValue)
{
    message("as", 0);
    SDBusInboundMessage inbound(call.get());
    NameList names(inbound);
    ResetIterator cursor(names, "com.omno.Test", properties);
    ASSERT_FALSE(cursor.at_end());
    expect_failure<std::logic_error>([&] { cursor.value(); }, "basic_string: construction from null is not valid");
}

class GetManyTest : public CursorTest {
protected:
    MessagePtr reply_message;

    // Runs the consumer loop of get_many over `names` into an a{sv} reply, and returns it
    // sealed for reading.
    void read_into_reply(std::vector<char const*> const& names)
    {
        ASSERT_GE(sd_bus_message_open_container(call.get(), 'a', "s"), 0);
        for (char const* name : names)
            ASSERT_GE(sd_bus_message_append_basic(call.get(), 's', name), 0);
        ASSERT_GE(sd_bus_message_close_container(call.get()), 0);
        tarvek::test::seal_for_reading(call.get());
        SDBusInboundMessage inbound(call.get());
        SDBusOutboundMessage reply(inbound);
        reply_message.reset(sd_bus_message_ref(reply.get()));
        NameList list(inbound);
        OutboundContainerGuard array(reply, 'a', "{sv}");
        {
            GetManyIterator cursor(list, "com.omno.Test", properties, reply);
            while (!cursor.at_end()) {
                auto element = cursor.value();
                element.first.serialize(element.second);
                cursor.advance();
            }
        }
        array.end();
    }

    std::vector<std::pair<std::string, int>> entries()
    {
        tarvek::test::seal_for_reading(reply_message.get());
        std::vector<std::pair<std::string, int>> result;
        EXPECT_STREQ(sd_bus_message_get_signature(reply_message.get(), 1), "a{sv}");
        EXPECT_GT(sd_bus_message_enter_container(reply_message.get(), 'a', "{sv}"), 0);
        char const* name = nullptr;
        int value = 0;
        while (sd_bus_message_read(reply_message.get(), "{sv}", &name, "i", &value) > 0)
            result.emplace_back(name, value);
        return result;
    }
};

TEST_F(GetManyTest, WritesOneEntryPerNameInTheOrderOfTheRequest)
{
    read_into_reply({"Speed", "Level", "Speed"});
    EXPECT_EQ(entries(), (std::vector<std::pair<std::string, int>>{{"Speed", 3}, {"Level", 7}, {"Speed", 3}}));
}

TEST_F(GetManyTest, OpensOneEntryOnlyForTwoValuesWithoutAdvance)
{
    message("as", 1, "Level");
    SDBusInboundMessage inbound(call.get());
    SDBusOutboundMessage reply(inbound);
    NameList list(inbound);
    OutboundContainerGuard array(reply, 'a', "{sv}");
    {
        GetManyIterator cursor(list, "com.omno.Test", properties, reply);
        auto first = cursor.value();
        auto second = cursor.value();
        EXPECT_EQ(&first.first, &level);
        EXPECT_EQ(&second.first, &level);
        first.first.serialize(first.second);
        cursor.advance();
        EXPECT_TRUE(cursor.at_end());
        expect_failure<tarvek::range_error>([&] { cursor.advance(); }, "No more properties in iterator");
        expect_failure<tarvek::out_of_range>([&] { cursor.value(); }, "no members left in array");
    }
    array.end();
    reply_message.reset(sd_bus_message_ref(reply.get()));
    EXPECT_EQ(entries(), (std::vector<std::pair<std::string, int>>{{"Level", 7}}));
}

TEST_F(GetManyTest, LeavesTheReplyAtTheLevelOfTheDictionaryWhenAPropertyThrows)
{
    message("as", 2, "Level", "Broken");
    SDBusInboundMessage inbound(call.get());
    SDBusOutboundMessage reply(inbound);
    NameList list(inbound);
    OutboundContainerGuard array(reply, 'a', "{sv}");
    auto const loop = [&] {
        GetManyIterator cursor(list, "com.omno.Test", properties, reply);
        while (!cursor.at_end()) {
            auto element = cursor.value();
            element.first.serialize(element.second);
            cursor.advance();
        }
    };
    EXPECT_THROW(loop(), std::runtime_error);
    array.end();
    reply_message.reset(sd_bus_message_ref(reply.get()));
    EXPECT_EQ(entries(), (std::vector<std::pair<std::string, int>>{{"Level", 7}, {"Broken", 0}}));
}

TEST_F(GetManyTest, RaisesUnknownPropertyForANameTheInterfaceLacks)
{
    message("as", 1, "Colour");
    SDBusInboundMessage inbound(call.get());
    SDBusOutboundMessage reply(inbound);
    NameList list(inbound);
    OutboundContainerGuard array(reply, 'a', "{sv}");
    GetManyIterator cursor(list, "com.omno.Test", properties, reply);
    expect_failure<tarvek::unknown_property>([&] { cursor.value(); },
                                             "Interface: com.omno.Test has no property named Colour");
}

TEST_F(GetManyTest, FailsAtTheFirstValueOfAnEmptyList)
{
    message("as", 0);
    SDBusInboundMessage inbound(call.get());
    SDBusOutboundMessage reply(inbound);
    NameList list(inbound);
    OutboundContainerGuard array(reply, 'a', "{sv}");
    GetManyIterator cursor(list, "com.omno.Test", properties, reply);
    ASSERT_FALSE(cursor.at_end());
    expect_failure<std::logic_error>([&] { cursor.value(); }, "basic_string: construction from null is not valid");
}
