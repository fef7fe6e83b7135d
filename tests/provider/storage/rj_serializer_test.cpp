// SPDX-License-Identifier: LGPL-2.1-or-later
#include "document_text.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/storage/rj_deserializer.hpp>
#include <tarvek/provider/storage/rj_serializer.hpp>

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

using storage_test::text_of;
using tarvek::ObjectPath;
using tarvek::provider::storage::RJ_Deserializer;
using tarvek::provider::storage::RJ_Serializer;
using tarvek::provider::storage::detail::RJ_Value;

namespace {

class RJ_SerializerTest : public ::testing::Test {
protected:
    RJ_Value document = RJ_Value::make_doc();
    RJ_Serializer serializer{document.value(), document.allocator()};

    std::string text() const { return text_of(document.value()); }

    void write_entry(char const* key, int value)
    {
        serializer.dict_entry_begin("si");
        serializer.write(key, 0, true);
        serializer.dict_entry_kv_separator();
        serializer.write(value);
        serializer.dict_entry_end();
    }
};

template <class Operation>
std::string serialize_error_of(Operation operation)
{
    try {
        operation();
    } catch (tarvek::serialize_error const& e) {
        return e.what();
    }
    return "no error";
}

} // namespace

TEST_F(RJ_SerializerTest, StoresATupleAsAnArray)
{
    serializer.tuple_begin(2, "is");
    serializer.tuple_entry_begin();
    serializer.write(1);
    serializer.tuple_entry_end();
    serializer.tuple_entry_begin();
    serializer.write("x", 1, false);
    serializer.tuple_entry_end();
    serializer.tuple_end();
    EXPECT_EQ(text(), R"([1,"x"])");
}

TEST_F(RJ_SerializerTest, StoresADictionaryWithStringKeysAsAnObject)
{
    serializer.dict_begin(2, "{si}");
    write_entry("a", 1);
    write_entry("b", 2);
    serializer.dict_end();
    EXPECT_EQ(text(), R"({"a":1,"b":2})");
}

TEST_F(RJ_SerializerTest, StoresAnIntegerKeyAsItsDecimalText)
{
    serializer.dict_begin(2, "{ii}");
    serializer.dict_entry_begin("ii");
    serializer.write(-5);
    serializer.write(1);
    serializer.dict_entry_end();
    serializer.dict_entry_begin("ii");
    serializer.write(7);
    serializer.write(2);
    serializer.dict_entry_end();
    serializer.dict_end();
    EXPECT_EQ(text(), R"({"-5":1,"7":2})");
}

TEST_F(RJ_SerializerTest, StoresTheExtremesOfEveryIntegerWidthAsKeys)
{
    serializer.dict_begin(0, "{xi}");
    auto const key = [&](auto value) {
        serializer.dict_entry_begin("xi");
        serializer.write(value);
        serializer.write(0);
        serializer.dict_entry_end();
    };
    key(std::numeric_limits<unsigned char>::max());
    key(std::numeric_limits<short>::min());
    key(std::numeric_limits<unsigned short>::max());
    key(std::numeric_limits<int>::min());
    key(std::numeric_limits<unsigned int>::max());
    key(std::numeric_limits<long>::min());
    key(std::numeric_limits<long>::max());
    key(std::numeric_limits<unsigned long>::max());
    serializer.dict_end();
    EXPECT_EQ(text(), R"({"255":0,"-32768":0,"65535":0,"-2147483648":0,"4294967295":0,)"
                      R"("-9223372036854775808":0,"9223372036854775807":0,"18446744073709551615":0})");
}

TEST_F(RJ_SerializerTest, StoresBoolKeysAsTrueAndFalse)
{
    serializer.dict_begin(2, "{bi}");
    for (bool const key : {true, false}) {
        serializer.dict_entry_begin("bi");
        serializer.write(key);
        serializer.write(1);
        serializer.dict_entry_end();
    }
    serializer.dict_end();
    EXPECT_EQ(text(), R"({"true":1,"false":1})");
}

TEST_F(RJ_SerializerTest, StoresDoubleKeysInTheShortestTextThatReadsBackExactly)
{
    serializer.dict_begin(0, "{di}");
    for (double const key : {0.1 + 0.2, 1e-310, -0.0, 2.5, 1e300}) {
        serializer.dict_entry_begin("di");
        serializer.write(key);
        serializer.write(0);
        serializer.dict_entry_end();
    }
    serializer.dict_end();
    EXPECT_EQ(text(), R"({"0.30000000000000004":0,"1e-310":0,"-0":0,"2.5":0,"1e+300":0})");
}

TEST_F(RJ_SerializerTest, StoresAnObjectPathKeyAsItsText)
{
    serializer.dict_begin(1, "{oi}");
    serializer.dict_entry_begin("oi");
    serializer.write(ObjectPath("/a/b"));
    serializer.write(1);
    serializer.dict_entry_end();
    serializer.dict_end();
    EXPECT_EQ(text(), R"({"/a/b":1})");
}

TEST_F(RJ_SerializerTest, KeepsTheStackAfterARefusedKey)
{
    serializer.dict_begin(1, "{si}");
    serializer.dict_entry_begin("si");
    EXPECT_THROW(serializer.list_begin(0, "i"), tarvek::serialize_error);
    serializer.write("k", 0, true);
    serializer.write(2);
    serializer.dict_entry_end();
    serializer.dict_end();
    EXPECT_EQ(text(), R"({"k":2})");
}

TEST_F(RJ_SerializerTest, RefusesAContainerAsKey)
{
    serializer.dict_begin(1, "{si}");
    serializer.dict_entry_begin("si");
    EXPECT_EQ(serialize_error_of([&] { serializer.list_begin(0, "i"); }), "Object member name must be string");
}

TEST_F(RJ_SerializerTest, StoresAVariantAroundAListAsTheBareArray)
{
    serializer.variant_begin("ai");
    serializer.list_begin(2, "i");
    serializer.list_entry_begin();
    serializer.write(1);
    serializer.list_entry_end();
    serializer.list_entry_begin();
    serializer.write(2);
    serializer.list_entry_end();
    serializer.list_end();
    serializer.variant_end();
    EXPECT_EQ(text(), "[1,2]");
}

TEST_F(RJ_SerializerTest, TakesTheLengthFromTheNulWhenTheSizeIsZero)
{
    serializer.write("whole", 0, true);
    EXPECT_EQ(text(), R"("whole")");
}

TEST_F(RJ_SerializerTest, StoresTheEmptyStringForSizeZeroWithoutNul)
{
    serializer.write("whole", 0, false);
    EXPECT_EQ(text(), R"("")");
}

TEST_F(RJ_SerializerTest, StoresExactlySizeBytesIncludingANul)
{
    serializer.write("a\0b", 3, false);
    EXPECT_EQ(document.value().GetStringLength(), 3U);
}

TEST_F(RJ_SerializerTest, StoresANullTextOfSizeZeroAsTheEmptyString)
{
    serializer.write(nullptr, 0, false);
    EXPECT_EQ(text(), R"("")");
}

TEST_F(RJ_SerializerTest, RefusesANullTextWithASize)
{
    try {
        serializer.write(nullptr, 2, false);
        FAIL() << "no exception";
    } catch (std::logic_error const& e) {
        EXPECT_STREQ(e.what(), "basic_string: construction from null is not valid");
    }
}

TEST_F(RJ_SerializerTest, CopiesTheCharactersIntoTheDocument)
{
    std::string text_buffer = "temporary";
    serializer.write(text_buffer.c_str(), text_buffer.size(), true);
    text_buffer.assign("overwritten");
    EXPECT_EQ(text(), R"("temporary")");
}

TEST_F(RJ_SerializerTest, StoresAPathAsAPlainString)
{
    serializer.write(ObjectPath("/a/b"));
    EXPECT_EQ(text(), R"("/a/b")");
}

TEST_F(RJ_SerializerTest, StoresBooleansAsJsonBooleans)
{
    serializer.write(true);
    EXPECT_TRUE(document.value().IsTrue());
    serializer.write(false);
    EXPECT_TRUE(document.value().IsFalse());
}

TEST_F(RJ_SerializerTest, StoresNarrowUnsignedNumbersAsUnsigned)
{
    serializer.write(static_cast<unsigned char>(200));
    EXPECT_TRUE(document.value().IsUint());
    EXPECT_EQ(document.value().GetUint(), 200U);
    serializer.write(static_cast<unsigned short>(65535));
    EXPECT_EQ(document.value().GetUint(), 65535U);
}

TEST_F(RJ_SerializerTest, StoresANegativeShortAsAnInt)
{
    serializer.write(static_cast<short>(-5));
    EXPECT_TRUE(document.value().IsInt());
    EXPECT_FALSE(document.value().IsUint());
    EXPECT_EQ(document.value().GetInt(), -5);
}

TEST_F(RJ_SerializerTest, StoresSixtyFourBitNumbersExactly)
{
    serializer.write(std::numeric_limits<long>::min());
    EXPECT_TRUE(document.value().IsInt64());
    EXPECT_FALSE(document.value().IsInt());
    EXPECT_EQ(document.value().GetInt64(), std::numeric_limits<long>::min());
}

TEST_F(RJ_SerializerTest, KeepsAnUnsignedValueAboveTheLargestSignedOne)
{
    unsigned long const big = 18446744073709551615UL;
    serializer.write(big);
    EXPECT_FALSE(document.value().IsInt64());
    RJ_Deserializer reader(document.value());
    EXPECT_EQ(reader.read_uint64(), big);
    EXPECT_EQ(text(), "18446744073709551615");
}

TEST_F(RJ_SerializerTest, StoresADoubleAsADouble)
{
    serializer.write(1.0);
    EXPECT_TRUE(document.value().IsDouble());
}

TEST_F(RJ_SerializerTest, ReplacesTheRootOnASecondWrite)
{
    serializer.write(1);
    serializer.write("two", 0, true);
    EXPECT_EQ(text(), R"("two")");
}

TEST_F(RJ_SerializerTest, ReplacesTheValueOnASecondWriteWithinOneEntry)
{
    serializer.dict_begin(1, "{si}");
    serializer.dict_entry_begin("si");
    serializer.write("k", 0, true);
    serializer.dict_entry_kv_separator();
    serializer.write(1);
    serializer.write(2);
    serializer.dict_entry_end();
    serializer.dict_end();
    EXPECT_EQ(text(), R"({"k":2})");
}

TEST_F(RJ_SerializerTest, NestsContainersInsideDictionariesAndLists)
{
    serializer.dict_begin(1, "{saai}");
    serializer.dict_entry_begin("saai");
    serializer.write("k", 0, true);
    serializer.dict_entry_kv_separator();
    serializer.list_begin(2, "ai");
    for (int i = 0; i < 2; ++i) {
        serializer.list_entry_begin();
        serializer.list_begin(1, "i");
        serializer.list_entry_begin();
        serializer.write(i);
        serializer.list_entry_end();
        serializer.list_end();
        serializer.list_entry_end();
    }
    serializer.list_end();
    serializer.dict_entry_end();
    serializer.dict_end();
    EXPECT_EQ(text(), R"({"k":[[0],[1]]})");
}

TEST_F(RJ_SerializerTest, RefusesDictEndInsideAnOpenEntry)
{
    serializer.dict_begin(1, "{si}");
    serializer.dict_entry_begin("si");
    serializer.write("k", 0, true);
    EXPECT_EQ(serialize_error_of([&] { serializer.dict_end(); }), "Bad state");
}

TEST_F(RJ_SerializerTest, RefusesListEndInsideADictionary)
{
    serializer.dict_begin(0, "{si}");
    EXPECT_EQ(serialize_error_of([&] { serializer.list_end(); }), "Bad state");
}

TEST_F(RJ_SerializerTest, RefusesToEndAnEntryThatNeverGotAKey)
{
    serializer.dict_begin(1, "{si}");
    serializer.dict_entry_begin("si");
    EXPECT_EQ(serialize_error_of([&] { serializer.dict_entry_end(); }), "Bad state");
}

TEST_F(RJ_SerializerTest, RefusesAValueWrittenOutsideAnEntry)
{
    serializer.dict_begin(1, "{si}");
    EXPECT_EQ(serialize_error_of([&] { serializer.write(1); }), "Internal error: bad state");
}

TEST_F(RJ_SerializerTest, RefusesAnEntryOpenedWhereAValueIsExpected)
{
    serializer.dict_begin(1, "{si}");
    serializer.dict_entry_begin("si");
    serializer.write("k", 0, true);
    serializer.dict_entry_begin("si");
    EXPECT_EQ(serialize_error_of([&] { serializer.write("x", 0, true); }), "Not a pointer to a value");
}

TEST_F(RJ_SerializerTest, CannotFindAKeyWithANulInsideAfterAddingIt)
{
    serializer.dict_begin(1, "{si}");
    serializer.dict_entry_begin("si");
    EXPECT_EQ(serialize_error_of([&] { serializer.write("a\0b", 3, false); }),
        "Internal error, failed to find newly added member");
}

TEST_F(RJ_SerializerTest, LetsTheLastValueOfARepeatedKeyWinOnTheFirstMember)
{
    serializer.dict_begin(2, "{si}");
    write_entry("a", 1);
    write_entry("a", 2);
    serializer.dict_end();
    EXPECT_EQ(text(), R"({"a":2,"a":null})");
}

TEST_F(RJ_SerializerTest, LeavesWhatWasPlacedWhenDestroyedWithOpenContainers)
{
    {
        RJ_Serializer abandoned(document.value(), document.allocator());
        abandoned.list_begin(2, "i");
        abandoned.list_entry_begin();
        abandoned.write(1);
    }
    EXPECT_EQ(text(), "[1]");
}
