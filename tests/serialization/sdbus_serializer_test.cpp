// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/serialization/sdbus_serializer.hpp>
#include <tarvek/server/dbus/sdbus_message.hpp>

#include "support/private_bus.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>

using tarvek::ObjectPath;
using tarvek::serialization::SDBusSerializer;
using tarvek::server::dbus::SDBusOutboundMessage;
using tarvek::test::MessagePtr;

namespace {

class SDBusSerializerTest : public ::testing::Test {
protected:
    tarvek::test::OfflineConnection connection;
    MessagePtr call = tarvek::test::new_call(connection.get());
    SDBusOutboundMessage outbound{call.get()};

    // Seals the message and returns its whole signature; the read position is at the start.
    std::string sealed_signature()
    {
        tarvek::test::seal_for_reading(call.get());
        return sd_bus_message_get_signature(call.get(), 1);
    }

    void append_raw_int(int value) { ASSERT_GE(sd_bus_message_append_basic(call.get(), 'i', &value), 0); }
};

template <class F>
void expect_system_error(F&& action, int code, std::string const& text)
{
    try {
        action();
        ADD_FAILURE() << "no exception";
    } catch (tarvek::system_error const& e) {
        EXPECT_EQ(e.code().value(), code);
        EXPECT_EQ(e.code().category(), std::system_category());
        EXPECT_EQ(std::string(e.what()).rfind(text + ": ", 0), 0u) << e.what();
    }
}

} // namespace

TEST_F(SDBusSerializerTest, WritesEachBasicTypeWithTheCodeOfTheMapping)
{
    {
        SDBusSerializer serializer(outbound);
        serializer.write(true);
        serializer.write(static_cast<unsigned char>(200));
        serializer.write(static_cast<short>(-3));
        serializer.write(static_cast<unsigned short>(65000));
        serializer.write(-70000);
        serializer.write(4000000000U);
        serializer.write(-5000000000L);
        serializer.write(18000000000000000000UL);
        serializer.write(2.5);
        serializer.write("text", 0, true);
        serializer.write(ObjectPath("/a/b"));
    }
    ASSERT_EQ(sealed_signature(), "bynqiuxtdso");
    int b = 0;
    unsigned char y = 0;
    short n = 0;
    unsigned short q = 0;
    int i = 0;
    unsigned int u = 0;
    long x = 0;
    unsigned long t = 0;
    double d = 0;
    char const* s = nullptr;
    char const* o = nullptr;
    ASSERT_GE(sd_bus_message_read(call.get(), "bynqiuxtdso", &b, &y, &n, &q, &i, &u, &x, &t, &d, &s, &o), 0);
    EXPECT_EQ(b, 1);
    EXPECT_EQ(y, 200);
    EXPECT_EQ(n, -3);
    EXPECT_EQ(q, 65000);
    EXPECT_EQ(i, -70000);
    EXPECT_EQ(u, 4000000000U);
    EXPECT_EQ(x, -5000000000L);
    EXPECT_EQ(t, 18000000000000000000UL);
    EXPECT_EQ(d, 2.5);
    EXPECT_STREQ(s, "text");
    EXPECT_STREQ(o, "/a/b");
}

TEST_F(SDBusSerializerTest, WritesFalseAsZero)
{
    {
        SDBusSerializer serializer(outbound);
        serializer.write(false);
    }
    ASSERT_EQ(sealed_signature(), "b");
    int b = 7;
    ASSERT_GE(sd_bus_message_read_basic(call.get(), 'b', &b), 0);
    EXPECT_EQ(b, 0);
}

TEST_F(SDBusSerializerTest, MapsEachContainerOperationToItsTypeCode)
{
    {
        SDBusSerializer serializer(outbound);
        serializer.dict_begin(1, "{sv}");
        serializer.dict_entry_begin("sv");
        serializer.write("key", 3, true);
        serializer.dict_entry_kv_separator();
        serializer.variant_begin("(ias)");
        serializer.tuple_begin(2, "ias");
        serializer.tuple_entry_begin();
        serializer.write(1);
        serializer.tuple_entry_end();
        serializer.tuple_entry_begin();
        serializer.list_begin(1, "s");
        serializer.list_entry_begin();
        serializer.write("e", 1, true);
        serializer.list_entry_end();
        serializer.list_end();
        serializer.tuple_entry_end();
        serializer.tuple_end();
        serializer.variant_end();
        serializer.dict_entry_end();
        serializer.dict_end();
    }
    ASSERT_EQ(sealed_signature(), "a{sv}");
    ASSERT_GT(sd_bus_message_enter_container(call.get(), 'a', "{sv}"), 0);
    ASSERT_GT(sd_bus_message_enter_container(call.get(), 'e', "sv"), 0);
    char const* key = nullptr;
    ASSERT_GT(sd_bus_message_read_basic(call.get(), 's', &key), 0);
    EXPECT_STREQ(key, "key");
    EXPECT_GT(sd_bus_message_enter_container(call.get(), 'v', "(ias)"), 0);
}

TEST_F(SDBusSerializerTest, WritesAnEmptyListAsAnEmptyArrayOfTheAnnouncedElement)
{
    {
        SDBusSerializer serializer(outbound);
        serializer.list_begin(0, "s");
        serializer.list_end();
    }
    ASSERT_EQ(sealed_signature(), "as");
    ASSERT_GT(sd_bus_message_enter_container(call.get(), 'a', "s"), 0);
    EXPECT_GT(sd_bus_message_at_end(call.get(), 0), 0);
}

TEST_F(SDBusSerializerTest, WritesAnEmptyDictionaryAsAnEmptyArrayOfTheAnnouncedEntry)
{
    {
        SDBusSerializer serializer(outbound);
        serializer.dict_begin(0, "{sv}");
        serializer.dict_end();
    }
    ASSERT_EQ(sealed_signature(), "a{sv}");
    ASSERT_GT(sd_bus_message_enter_container(call.get(), 'a', "{sv}"), 0);
    EXPECT_GT(sd_bus_message_at_end(call.get(), 0), 0);
}

TEST_F(SDBusSerializerTest, AppendsOnlyTheGivenSizeOfATextThatIsNotNullTerminated)
{
    {
        SDBusSerializer serializer(outbound);
        serializer.write("abc", 2, false);
    }
    ASSERT_EQ(sealed_signature(), "s");
    char const* text = nullptr;
    ASSERT_GT(sd_bus_message_read_basic(call.get(), 's', &text), 0);
    EXPECT_STREQ(text, "ab");
}

TEST_F(SDBusSerializerTest, IgnoresTheSizeOfANullTerminatedText)
{
    {
        SDBusSerializer serializer(outbound);
        serializer.write("abc", 2, true);
    }
    ASSERT_EQ(sealed_signature(), "s");
    char const* text = nullptr;
    ASSERT_GT(sd_bus_message_read_basic(call.get(), 's', &text), 0);
    EXPECT_STREQ(text, "abc");
}

TEST_F(SDBusSerializerTest, LeavesTheMessageAtTheOuterLevelWhenAValueThrowsInsideADictionaryEntry)
{
    auto const throwing_value = [this] {
        SDBusSerializer serializer(outbound);
        serializer.dict_begin(1, "{sv}");
        serializer.dict_entry_begin("sv");
        serializer.write("key", 3, true);
        serializer.dict_entry_kv_separator();
        serializer.variant_begin("i");
        serializer.write(1);
        serializer.variant_end();
        throw std::runtime_error("value failed");
    };
    EXPECT_THROW(throwing_value(), std::runtime_error);
    append_raw_int(42);
    ASSERT_EQ(sealed_signature(), "a{sv}i");
    ASSERT_GE(sd_bus_message_skip(call.get(), "a{sv}"), 0);
    int after = 0;
    ASSERT_GT(sd_bus_message_read_basic(call.get(), 'i', &after), 0);
    EXPECT_EQ(after, 42);
}

TEST_F(SDBusSerializerTest, ClosesEveryLevelItOpenedWhenItEndsHalfWay)
{
    {
        SDBusSerializer serializer(outbound);
        serializer.tuple_begin(1, "ai");
        serializer.tuple_entry_begin();
        serializer.list_begin(0, "i");
    }
    EXPECT_EQ(sealed_signature(), "(ai)");
}

TEST_F(SDBusSerializerTest, FailsTheFirstWriteThatDoesNotMatchTheVariantSignature)
{
    SDBusSerializer serializer(outbound);
    serializer.variant_begin("i");
    expect_system_error([&] { serializer.write("x", 1, true); }, ENXIO, "could not append");
    // Complete the variant, so that the serializer can close it.
    serializer.write(3);
}

TEST_F(SDBusSerializerTest, ReportsAFailedBooleanWithItsOwnText)
{
    SDBusSerializer serializer(outbound);
    serializer.variant_begin("i");
    expect_system_error([&] { serializer.write(true); }, ENXIO, "could not append bool");
    serializer.write(3);
}

TEST_F(SDBusSerializerTest, ReportsAFailedOpeningAndClosesTheCallersContainerAsWell)
{
    ASSERT_GE(sd_bus_message_open_container(call.get(), 'a', "v"), 0);
    {
        SDBusSerializer serializer(outbound);
        serializer.variant_begin("i");
        expect_system_error([&] { serializer.tuple_begin(1, "i"); }, ENXIO,
                            "sd_bus_message_open_container failed");
        serializer.write(5);
    }
    // The extra close has ended the caller's array: the next value is at the root.
    append_raw_int(9);
    EXPECT_EQ(sealed_signature(), "avi");
}

TEST_F(SDBusSerializerTest, ReportsAFailedClosingAndStillTriesTheCloseInItsDestructor)
{
    {
        SDBusSerializer serializer(outbound);
        serializer.list_begin(0, "i");
        // Closed behind the serializer's back: its own close then fails at the root.
        ASSERT_GE(sd_bus_message_close_container(call.get()), 0);
        expect_system_error([&] { serializer.list_end(); }, EINVAL, "sd_bus_message_close_container failed");
        // The level still counts: give the destructor's close something to close.
        ASSERT_GE(sd_bus_message_open_container(call.get(), 'a', "i"), 0);
    }
    EXPECT_EQ(sealed_signature(), "aiai");
}

TEST_F(SDBusSerializerTest, NeitherReadsNorChangesTheStackOfTheMessageItWasMadeFrom)
{
    outbound.open_container('a', "ai");
    {
        SDBusSerializer serializer(outbound);
        serializer.list_begin(0, "i");
    }
    EXPECT_EQ(outbound.depth(), 1u);
    outbound.close_container();
    EXPECT_EQ(sealed_signature(), "aai");
}

TEST(SDBusSerializer, FailsOnANullMessageAtTheFirstOperationAndEndsHarmlessly)
{
    SDBusOutboundMessage const empty(nullptr);
    SDBusSerializer serializer(empty);
    expect_system_error([&] { serializer.write(1); }, EINVAL, "could not append");
}
