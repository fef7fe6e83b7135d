// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/serialization/sdbus_deserializer.hpp>

#include "support/private_bus.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>

using tarvek::ObjectPath;
using tarvek::serialization::SDBusDeserializer;
using tarvek::test::MessagePtr;

namespace {

class SDBusDeserializerTest : public ::testing::Test {
protected:
    tarvek::test::OfflineConnection connection;
    MessagePtr call = tarvek::test::new_call(connection.get());
    SDBusDeserializer source{call.get()};

    // Appends with sd_bus_message_append's own format, then seals for reading.
    template <class... Args>
    void message(char const* types, Args... args)
    {
        ASSERT_GE(sd_bus_message_append(call.get(), types, args...), 0);
        tarvek::test::seal_for_reading(call.get());
    }
};

template <class F>
void expect_errno(F&& action, int code)
{
    try {
        action();
        ADD_FAILURE() << "no exception";
    } catch (tarvek::system_error const& e) {
        EXPECT_EQ(e.code().value(), code);
        EXPECT_EQ(e.code().category(), std::system_category());
        // No text of its own: only the system's description of the code.
        EXPECT_EQ(std::string(e.what()), std::system_category().message(code));
    }
}

} // namespace

TEST_F(SDBusDeserializerTest, ReadsEachBasicTypeByTheCodeOfTheMapping)
{
    message("bynqiuxtdso", 1, 200, -3, 65000, -70000, 4000000000U, -5000000000L, 18000000000000000000UL, 2.5,
            "text", "/a/b");
    EXPECT_TRUE(source.read_bool());
    EXPECT_EQ(source.read_byte(), 200);
    EXPECT_EQ(source.read_int16(), -3);
    EXPECT_EQ(source.read_uint16(), 65000);
    EXPECT_EQ(source.read_int32(), -70000);
    EXPECT_EQ(source.read_uint32(), 4000000000U);
    EXPECT_EQ(source.read_int64(), -5000000000L);
    EXPECT_EQ(source.read_uint64(), 18000000000000000000UL);
    EXPECT_EQ(source.read_double(), 2.5);
    EXPECT_EQ(source.read_string(), "text");
    EXPECT_EQ(source.read_path(), ObjectPath("/a/b"));
}

TEST_F(SDBusDeserializerTest, ReadsAZeroBooleanAsFalse)
{
    message("b", 0);
    EXPECT_FALSE(source.read_bool());
}

TEST_F(SDBusDeserializerTest, ReadsATupleMemberByMember)
{
    message("(is)i", 4, "four", 5);
    source.tuple_enter();
    EXPECT_EQ(source.read_int32(), 4);
    source.tuple_read_separator();
    EXPECT_EQ(source.read_string(), "four");
    source.tuple_exit();
    EXPECT_EQ(source.read_int32(), 5);
}

TEST_F(SDBusDeserializerTest, ListEnterReturnsMinusOneAndTryExitLeavesAnEmptyArray)
{
    message("asi", 0, 7);
    EXPECT_EQ(source.list_enter(), -1);
    EXPECT_TRUE(source.list_try_exit());
    EXPECT_EQ(source.read_int32(), 7);
}

TEST_F(SDBusDeserializerTest, ReadsAListByTheReadingProtocol)
{
    message("asi", 2, "a", "b", 7);
    EXPECT_EQ(source.list_enter(), -1);
    ASSERT_FALSE(source.list_try_exit());
    EXPECT_EQ(source.read_string(), "a");
    ASSERT_FALSE(source.list_try_exit());
    source.list_read_separator();
    EXPECT_EQ(source.read_string(), "b");
    EXPECT_TRUE(source.list_try_exit());
    EXPECT_EQ(source.read_int32(), 7);
}

TEST_F(SDBusDeserializerTest, DictExitAfterTheLastEntryLeavesTheArray)
{
    message("a{si}s", 1, "k", 1, "next");
    EXPECT_EQ(source.dict_enter(), -1);
    ASSERT_TRUE(source.dict_entry_try_enter(true));
    EXPECT_EQ(source.read_string(), "k");
    source.dict_entry_read_kv_separator();
    EXPECT_EQ(source.read_int32(), 1);
    source.dict_entry_exit();
    ASSERT_FALSE(source.dict_entry_try_enter(false));
    source.dict_exit();
    EXPECT_EQ(source.read_string(), "next");
}

TEST_F(SDBusDeserializerTest, DictEntryTryEnterIgnoresWhetherItIsTheFirst)
{
    message("a{si}", 2, "a", 1, "b", 2);
    source.dict_enter();
    ASSERT_TRUE(source.dict_entry_try_enter(false));
    EXPECT_EQ(source.read_string(), "a");
    EXPECT_EQ(source.read_int32(), 1);
    source.dict_entry_exit();
    ASSERT_TRUE(source.dict_entry_try_enter(true));
    EXPECT_EQ(source.read_string(), "b");
    EXPECT_EQ(source.read_int32(), 2);
    source.dict_entry_exit();
    EXPECT_FALSE(source.dict_entry_try_enter(true));
    EXPECT_FALSE(source.dict_entry_try_enter(false));
}

TEST_F(SDBusDeserializerTest, ReadsAnEmptyDictionaryAsNoEntry)
{
    message("a{sv}i", 0, 3);
    EXPECT_EQ(source.dict_enter(), -1);
    EXPECT_FALSE(source.dict_entry_try_enter(true));
    source.dict_exit();
    EXPECT_EQ(source.read_int32(), 3);
}

TEST_F(SDBusDeserializerTest, ReadInt32OfAnUnsignedFailsWithEnxioAndKeepsThePosition)
{
    message("u", 7U);
    expect_errno([&] { source.read_int32(); }, ENXIO);
    EXPECT_EQ(source.read_uint32(), 7U);
}

TEST_F(SDBusDeserializerTest, ReadInt64OfAnInt32FailsAsATypeMismatch)
{
    message("i", 7);
    expect_errno([&] { source.read_int64(); }, ENXIO);
}

TEST_F(SDBusDeserializerTest, ReadsAnIntInsideAVariantAsInt32)
{
    message("vi", "i", 5, 6);
    source.variant_enter();
    EXPECT_EQ(source.read_int32(), 5);
    source.variant_exit();
    EXPECT_EQ(source.read_int32(), 6);
}

TEST_F(SDBusDeserializerTest, FailsToReadAnIntInsideAVariantAsAString)
{
    message("v", "i", 5);
    source.variant_enter();
    expect_errno([&] { source.read_string(); }, ENXIO);
}

TEST_F(SDBusDeserializerTest, EntersAVariantOfAnyContainedType)
{
    message("v", "as", 1, "x");
    source.variant_enter();
    source.list_enter();
    ASSERT_FALSE(source.list_try_exit());
    EXPECT_EQ(source.read_string(), "x");
    EXPECT_TRUE(source.list_try_exit());
    source.variant_exit();
}

TEST_F(SDBusDeserializerTest, EntersADictionaryAsAListAndFailsOnlyAtTheFirstElement)
{
    message("a{si}", 1, "k", 1);
    EXPECT_EQ(source.list_enter(), -1);
    ASSERT_FALSE(source.list_try_exit());
    expect_errno([&] { source.read_string(); }, ENXIO);
}

TEST_F(SDBusDeserializerTest, FailsToEnterAContainerOfAnotherKind)
{
    message("ai", 0);
    expect_errno([&] { source.tuple_enter(); }, ENXIO);
}

TEST_F(SDBusDeserializerTest, RejectsAPathThatIsNoValidObjectPath)
{
    // Valid on the bus, but longer than an ObjectPath may be.
    std::string const long_path = "/" + std::string(ObjectPath::max_length, 'a');
    message("o", long_path.c_str());
    try {
        source.read_path();
        ADD_FAILURE() << "no exception";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "String is not a valid ObjectPath");
    }
}

TEST_F(SDBusDeserializerTest, ReadsNoStringAtTheEndOfAContainer)
{
    // The end isn't told apart from a value: the null text reaches std::string.
    message("as", 0);
    source.list_enter();
    try {
        source.read_string();
        ADD_FAILURE() << "no exception";
    } catch (std::logic_error const& e) {
        EXPECT_STREQ(e.what(), "basic_string: construction from null is not valid");
    }
}

TEST_F(SDBusDeserializerTest, SharesThePositionWithAnotherDeserializerOnTheSameMessage)
{
    message("ii", 1, 2);
    SDBusDeserializer other(call.get());
    EXPECT_EQ(source.read_int32(), 1);
    EXPECT_EQ(other.read_int32(), 2);
}
