// SPDX-License-Identifier: LGPL-2.1-or-later
#include "document_text.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/storage/rj_deserializer.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <variant>

using storage_test::parse;
using tarvek::ObjectPath;
using tarvek::provider::storage::RJ_Deserializer;
using tarvek::provider::storage::detail::RJ_Value;

namespace {

// A deserializer over a document of its own.
class Reading {
public:
    explicit Reading(std::string const& text) : document_(parse(text)), reader_(document_.value()) {}
    RJ_Deserializer* operator->() { return &reader_; }

private:
    RJ_Value document_;
    RJ_Deserializer reader_;
};

template <class Operation>
std::string deserialize_error_of(Operation operation)
{
    try {
        operation();
    } catch (tarvek::deserialize_error const& e) {
        return e.what();
    }
    return "no error";
}

template <class Operation>
std::string stderr_of(Operation operation)
{
    testing::internal::CaptureStderr();
    operation();
    return testing::internal::GetCapturedStderr();
}

} // namespace

TEST(RJ_Deserializer, ReadsTheLargestUint16)
{
    Reading reader("65535");
    EXPECT_EQ(reader->read_uint16(), 65535);
}

TEST(RJ_Deserializer, RefusesAUint16AboveItsRange)
{
    Reading reader("65536");
    EXPECT_EQ(deserialize_error_of([&] { reader->read_uint16(); }), "Integer value out of range");
}

TEST(RJ_Deserializer, ReadsTheSmallestInt16)
{
    Reading reader("-32768");
    EXPECT_EQ(reader->read_int16(), -32768);
}

TEST(RJ_Deserializer, RefusesAnInt16OutsideItsRange)
{
    Reading above("32768");
    EXPECT_EQ(deserialize_error_of([&] { above->read_int16(); }), "Integer value out of range");
    Reading below("-32769");
    EXPECT_EQ(deserialize_error_of([&] { below->read_int16(); }), "Integer value out of range");
}

TEST(RJ_Deserializer, ReadsTheLargestByteAndRefusesOneMore)
{
    Reading largest("255");
    EXPECT_EQ(largest->read_byte(), 255);
    Reading above("256");
    EXPECT_EQ(deserialize_error_of([&] { above->read_byte(); }), "Integer value out of range");
}

TEST(RJ_Deserializer, ReadsTheRootAgainAndAgain)
{
    Reading reader("42");
    EXPECT_EQ(reader->read_int32(), 42);
    EXPECT_EQ(reader->read_int32(), 42);
}

TEST(RJ_Deserializer, ReadsEveryWidthAtItsLimits)
{
    Reading reader(R"([true, -2147483648, 4294967295, -9223372036854775808, 18446744073709551615, 0.5])");
    EXPECT_EQ(reader->list_enter(), 6);
    EXPECT_TRUE(reader->read_bool());
    EXPECT_EQ(reader->read_int32(), std::numeric_limits<int>::min());
    EXPECT_EQ(reader->read_uint32(), 4294967295U);
    EXPECT_EQ(reader->read_int64(), std::numeric_limits<long>::min());
    EXPECT_EQ(reader->read_uint64(), std::numeric_limits<unsigned long>::max());
    EXPECT_EQ(reader->read_double(), 0.5);
    EXPECT_TRUE(reader->list_try_exit());
}

TEST(RJ_Deserializer, RaisesArrayOverflowOnAThirdReadOfTwoElements)
{
    Reading reader("[1, 2]");
    reader->list_enter();
    EXPECT_FALSE(reader->list_try_exit());
    EXPECT_EQ(reader->read_int32(), 1);
    EXPECT_FALSE(reader->list_try_exit());
    EXPECT_EQ(reader->read_int32(), 2);
    EXPECT_EQ(deserialize_error_of([&] { reader->read_int32(); }), "Array overflow");
    EXPECT_TRUE(reader->list_try_exit());
}

TEST(RJ_Deserializer, RaisesArrayOverflowOnEnteringBeyondTheLastElement)
{
    Reading reader("[]");
    reader->list_enter();
    EXPECT_EQ(deserialize_error_of([&] { reader->list_enter(); }), "Array overflow");
}

TEST(RJ_Deserializer, RefusesToExitATupleWithAMemberLeft)
{
    Reading reader("[1, 2]");
    reader->tuple_enter();
    reader->read_int32();
    reader->tuple_read_separator();
    EXPECT_EQ(deserialize_error_of([&] { reader->tuple_exit(); }), "Failed to exit tuple");
}

TEST(RJ_Deserializer, ExitsATupleReadToItsEnd)
{
    Reading reader(R"([[1, "x"], 7])");
    reader->list_enter();
    reader->tuple_enter();
    EXPECT_EQ(reader->read_int32(), 1);
    reader->tuple_read_separator();
    EXPECT_EQ(reader->read_string(), "x");
    reader->tuple_exit();
    EXPECT_EQ(reader->read_int32(), 7);
}

TEST(RJ_Deserializer, LeavesADictionaryWithMembersLeft)
{
    Reading reader(R"([{"a":1, "b":2}, 3])");
    reader->list_enter();
    EXPECT_EQ(reader->dict_enter(), 2);
    EXPECT_NO_THROW(reader->dict_exit());
    EXPECT_EQ(reader->read_int32(), 3);
}

TEST(RJ_Deserializer, ReadsAJsonIntegerAsADouble)
{
    Reading reader("7");
    EXPECT_EQ(reader->read_double(), 7.0);
}

TEST(RJ_Deserializer, ReadsAnEmptyPathFromAnEmptyString)
{
    Reading reader(R"("")");
    EXPECT_EQ(reader->read_path(), ObjectPath());
}

TEST(RJ_Deserializer, ReadsAValidPath)
{
    Reading reader(R"("/a/b")");
    EXPECT_EQ(reader->read_path(), ObjectPath("/a/b"));
}

TEST(RJ_Deserializer, RefusesAnInvalidPath)
{
    Reading reader(R"("a/b")");
    try {
        reader->read_path();
        FAIL() << "no exception";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "String is not a valid ObjectPath");
    }
}

TEST(RJ_Deserializer, ReadsAStringUpToItsFirstNul)
{
    Reading reader(R"("a\u0000b")");
    EXPECT_EQ(reader->read_string(), "a");
}

TEST(RJ_Deserializer, ReportsAnInt32ReadOfAStringWithoutRaising)
{
    Reading reader(R"("text")");
    EXPECT_EQ(stderr_of([&] { EXPECT_NO_THROW(reader->read_int32()); }),
        "RAPIDJSON_ASSERT(data_.f.flags & kIntFlag)\n");
}

TEST(RJ_Deserializer, ReportsANumberAboveTheInt32RangeAsTheWrongKind)
{
    Reading reader("2147483648");
    EXPECT_EQ(stderr_of([&] { reader->read_int32(); }), "RAPIDJSON_ASSERT(data_.f.flags & kIntFlag)\n");
}

TEST(RJ_Deserializer, ReportsANegativeNumberReadAsUnsigned)
{
    Reading reader("-1");
    EXPECT_EQ(stderr_of([&] { reader->read_uint32(); }), "RAPIDJSON_ASSERT(data_.f.flags & kUintFlag)\n");
}

TEST(RJ_Deserializer, ReportsABooleanReadOfANumber)
{
    Reading reader("1");
    EXPECT_EQ(stderr_of([&] { reader->read_bool(); }), "RAPIDJSON_ASSERT(IsBool())\n");
}

TEST(RJ_Deserializer, ReportsAListEnteredOnANumberAndReadsItAsEmpty)
{
    Reading reader("1");
    int size = -1;
    EXPECT_EQ(stderr_of([&] { size = reader->list_enter(); }), "RAPIDJSON_ASSERT(IsArray())\n");
    EXPECT_EQ(size, 0);
    EXPECT_TRUE(reader->list_try_exit());
}

TEST(RJ_Deserializer, ReportsADictionaryEnteredOnAnArrayAndReadsItAsEmpty)
{
    Reading reader("[]");
    EXPECT_EQ(stderr_of([&] { reader->dict_enter(); }), "RAPIDJSON_ASSERT(IsObject())\n");
    EXPECT_FALSE(reader->dict_entry_try_enter(true));
    reader->dict_exit();
}

TEST(RJ_Deserializer, ReadsTheMembersOfADictionaryInDocumentOrder)
{
    Reading reader(R"({"b":1, "a":"x"})");
    EXPECT_EQ(reader->dict_enter(), 2);
    ASSERT_TRUE(reader->dict_entry_try_enter(true));
    EXPECT_EQ(reader->read_string(), "b");
    reader->dict_entry_read_kv_separator();
    EXPECT_EQ(reader->read_int32(), 1);
    reader->dict_entry_exit();
    ASSERT_TRUE(reader->dict_entry_try_enter(false));
    EXPECT_EQ(reader->read_string(), "a");
    reader->dict_entry_read_kv_separator();
    EXPECT_EQ(reader->read_string(), "x");
    reader->dict_entry_exit();
    EXPECT_FALSE(reader->dict_entry_try_enter(false));
    reader->dict_exit();
}

TEST(RJ_Deserializer, ReadsTheKeyAgainUntilTheSeparator)
{
    Reading reader(R"({"k":1})");
    reader->dict_enter();
    reader->dict_entry_try_enter(true);
    EXPECT_EQ(reader->read_string(), "k");
    EXPECT_EQ(reader->read_string(), "k");
}

TEST(RJ_Deserializer, ReadsAVariantAsItsBareContent)
{
    Reading reader("[5]");
    reader->variant_enter();
    reader->list_enter();
    EXPECT_EQ(reader->read_int32(), 5);
    EXPECT_TRUE(reader->list_try_exit());
    reader->variant_exit();
}

TEST(RJ_Deserializer, RefusesDictExitOutsideADictionary)
{
    Reading reader("{}");
    EXPECT_EQ(deserialize_error_of([&] { reader->dict_exit(); }), "Internal error - illegal state");
}

TEST(RJ_Deserializer, RaisesBadVariantAccessForListTryExitOutsideAList)
{
    Reading reader(R"({"a":1})");
    EXPECT_THROW(reader->list_try_exit(), std::bad_variant_access);
    reader->dict_enter();
    EXPECT_THROW(reader->list_try_exit(), std::bad_variant_access);
}

TEST(RJ_Deserializer, RaisesBadVariantAccessForDictionaryOperationsInsideAList)
{
    Reading reader("[1]");
    reader->list_enter();
    EXPECT_THROW(reader->dict_entry_try_enter(true), std::bad_variant_access);
    EXPECT_THROW(reader->dict_entry_read_kv_separator(), std::bad_variant_access);
    EXPECT_THROW(reader->dict_entry_exit(), std::bad_variant_access);
}

namespace {

// The first key of a one-member dictionary `{"<key>": 0}`, read by `read`.
template <class Read>
auto first_key(std::string const& key, Read read)
{
    Reading reader("{\"" + key + "\":0}");
    reader->dict_enter();
    reader->dict_entry_try_enter(true);
    return read(*reader.operator->());
}

template <class Read>
std::string key_error(std::string const& key, Read read)
{
    return deserialize_error_of([&] { first_key(key, read); });
}

} // namespace

TEST(RJ_Deserializer, ParsesIntegerKeysOfEveryWidthAtTheirExtremes)
{
    EXPECT_EQ(first_key("255", [](RJ_Deserializer& r) { return r.read_byte(); }), 255);
    EXPECT_EQ(first_key("-32768", [](RJ_Deserializer& r) { return r.read_int16(); }), -32768);
    EXPECT_EQ(first_key("65535", [](RJ_Deserializer& r) { return r.read_uint16(); }), 65535);
    EXPECT_EQ(first_key("-2147483648", [](RJ_Deserializer& r) { return r.read_int32(); }),
        std::numeric_limits<int>::min());
    EXPECT_EQ(first_key("4294967295", [](RJ_Deserializer& r) { return r.read_uint32(); }),
        std::numeric_limits<unsigned int>::max());
    EXPECT_EQ(first_key("-9223372036854775808", [](RJ_Deserializer& r) { return r.read_int64(); }),
        std::numeric_limits<long>::min());
    EXPECT_EQ(first_key("18446744073709551615", [](RJ_Deserializer& r) { return r.read_uint64(); }),
        std::numeric_limits<unsigned long>::max());
}

TEST(RJ_Deserializer, RefusesIntegerKeysOutsideTheirWidth)
{
    EXPECT_EQ(key_error("256", [](RJ_Deserializer& r) { return r.read_byte(); }),
        "Dictionary key is not a valid byte: 256");
    EXPECT_EQ(key_error("-32769", [](RJ_Deserializer& r) { return r.read_int16(); }),
        "Dictionary key is not a valid int16: -32769");
    EXPECT_EQ(key_error("65536", [](RJ_Deserializer& r) { return r.read_uint16(); }),
        "Dictionary key is not a valid uint16: 65536");
    EXPECT_EQ(key_error("2147483648", [](RJ_Deserializer& r) { return r.read_int32(); }),
        "Dictionary key is not a valid int32: 2147483648");
    EXPECT_EQ(key_error("-1", [](RJ_Deserializer& r) { return r.read_uint32(); }),
        "Dictionary key is not a valid uint32: -1");
    EXPECT_EQ(key_error("9223372036854775808", [](RJ_Deserializer& r) { return r.read_int64(); }),
        "Dictionary key is not a valid int64: 9223372036854775808");
    EXPECT_EQ(key_error("18446744073709551616", [](RJ_Deserializer& r) { return r.read_uint64(); }),
        "Dictionary key is not a valid uint64: 18446744073709551616");
}

TEST(RJ_Deserializer, RefusesIntegerKeysThatAreNotWholeNumbers)
{
    auto const read = [](RJ_Deserializer& r) { return r.read_int32(); };
    EXPECT_EQ(key_error("abc", read), "Dictionary key is not a valid int32: abc");
    EXPECT_EQ(key_error("", read), "Dictionary key is not a valid int32: ");
    EXPECT_EQ(key_error("12x", read), "Dictionary key is not a valid int32: 12x");
    EXPECT_EQ(key_error(" 12", read), "Dictionary key is not a valid int32:  12");
    EXPECT_EQ(key_error("+12", read), "Dictionary key is not a valid int32: +12");
    EXPECT_EQ(key_error("1.5", read), "Dictionary key is not a valid int32: 1.5");
}

TEST(RJ_Deserializer, ParsesBoolKeysAndRefusesOtherWords)
{
    auto const read = [](RJ_Deserializer& r) { return r.read_bool(); };
    EXPECT_TRUE(first_key("true", read));
    EXPECT_FALSE(first_key("false", read));
    EXPECT_EQ(key_error("1", read), "Dictionary key is not a valid bool: 1");
    EXPECT_EQ(key_error("True", read), "Dictionary key is not a valid bool: True");
}

TEST(RJ_Deserializer, ParsesDoubleKeysToTheExactBits)
{
    auto const read = [](RJ_Deserializer& r) { return r.read_double(); };
    EXPECT_EQ(first_key("0.30000000000000004", read), 0.1 + 0.2);
    EXPECT_EQ(first_key("1e-310", read), 1e-310);
    EXPECT_EQ(first_key("1e+300", read), 1e300);
    double const zero = first_key("-0", read);
    EXPECT_EQ(zero, 0.0);
    EXPECT_TRUE(std::signbit(zero));
    EXPECT_EQ(key_error("0.1.2", read), "Dictionary key is not a valid double: 0.1.2");
    EXPECT_EQ(key_error("1e999", read), "Dictionary key is not a valid double: 1e999");
}

TEST(RJ_Deserializer, ParsesObjectPathKeysAndRefusesOtherText)
{
    auto const read = [](RJ_Deserializer& r) { return r.read_path(); };
    EXPECT_EQ(first_key("/a/b", read), ObjectPath("/a/b"));
    EXPECT_EQ(first_key("", read), ObjectPath());
    EXPECT_EQ(key_error("a/b", read), "Dictionary key is not a valid object path: a/b");
}

TEST(RJ_Deserializer, ReadsAValueAfterATypedKeyAsAValue)
{
    Reading reader(R"({"7":"seven"})");
    reader->dict_enter();
    ASSERT_TRUE(reader->dict_entry_try_enter(true));
    EXPECT_EQ(reader->read_int32(), 7);
    reader->dict_entry_read_kv_separator();
    EXPECT_EQ(reader->read_string(), "seven");
    reader->dict_entry_exit();
    EXPECT_FALSE(reader->dict_entry_try_enter(false));
}

TEST(RJ_Deserializer, ReadsANumberInsideADictionaryValueAsANumber)
{
    Reading reader(R"({"k":[12]})");
    reader->dict_enter();
    ASSERT_TRUE(reader->dict_entry_try_enter(true));
    reader->dict_entry_read_kv_separator();
    reader->list_enter();
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(reader->read_int32(), 12); }), "");
}
