// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading stored documents from text: numbers with full precision, nesting without stack,
// and the checked form that tells a bad file from a good one.
#include "document_text.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/storage/documents.hpp>

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

namespace storage = tarvek::provider::storage;

using storage_test::text_of;

namespace {

storage::Object read(std::string const& text)
{
    std::istringstream in(text);
    storage::Object document;
    document.read_json(in);
    return document;
}

std::string written(storage::ConstObject const& document)
{
    std::ostringstream out;
    document.write_json(out, true);
    return out.str();
}

// A document whose one property "P" holds `value` as JSON text.
std::string with_property(std::string const& value)
{
    return R"({"interfaces": {"i": {"properties": {"P": )" + value + "}}}}";
}

storage::GenericValue const& property_of(storage::ConstObject const& document)
{
    return document.interfaces().try_find("i")->properties().try_find("P")->json_value();
}

std::uint64_t bits_of(double value)
{
    return std::bit_cast<std::uint64_t>(value);
}

template <class Operation> std::string deserialize_error_of(Operation operation)
{
    try {
        operation();
    } catch (tarvek::deserialize_error const& e) {
        return e.what();
    }
    return "no error";
}

std::string nested_arrays(std::size_t depth, bool closed)
{
    return std::string(depth, '[') + (closed ? std::string(depth, ']') : std::string());
}

} // namespace

TEST(StorageReadJson, ReadsTheWrittenTextOfADoubleToItsExactBits)
{
    // What the writer makes of 0.1 + 0.2, and of 1e-310; RapidJSON's default number
    // parsing reads them as 0.3000000000000001 and 9.9999999999999694e-311.
    auto const document = read(with_property("[0.30000000000000007, 1e-310]"));
    EXPECT_EQ(bits_of(property_of(document)[0].GetDouble()), bits_of(0.1 + 0.2));
    EXPECT_EQ(bits_of(property_of(document)[1].GetDouble()), bits_of(1e-310));
}

TEST(StorageReadJson, GivesBackWhatItWroteForDoublesThatAreHardToRound)
{
    for (double const value : {0.1 + 0.2, 1e-310, std::numeric_limits<double>::denorm_min(),
             std::numeric_limits<double>::max(), std::numeric_limits<double>::min(), -0.0,
             2.2250738585072011e-308, 0.9868011474609375, 8.41e21, 5e-324 * 3, 1.0 / 3.0}) {
        storage::Object document;
        storage::Interface interface("i");
        storage::Property property("P");
        property.json_value().SetDouble(value);
        interface.add(property);
        document.add(interface);
        std::string const text = written(document);
        auto const back = read(text);
        ASSERT_TRUE(property_of(back).IsDouble()) << text;
        EXPECT_EQ(bits_of(property_of(back).GetDouble()), bits_of(value)) << text;
    }
}

TEST(StorageReadJson, ReadsTheExtremesOfSixtyFourBitIntegersExactly)
{
    auto const document = read(with_property("[-9223372036854775808, 18446744073709551615]"));
    EXPECT_EQ(property_of(document)[0].GetInt64(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(property_of(document)[1].GetUint64(), std::numeric_limits<std::uint64_t>::max());
}

TEST(StorageReadJson, TakesTwoHundredThousandUnclosedBracketsAsMalformedWithoutCrashing)
{
    auto const document = read(nested_arrays(200'000, false));
    EXPECT_TRUE(document.json_value().IsNull());
}

TEST(StorageReadJson, TakesTwoHundredThousandNestedArraysAsMalformedWithoutCrashing)
{
    auto const document = read(nested_arrays(200'000, true));
    EXPECT_TRUE(document.json_value().IsNull());
}

TEST(StorageReadJson, TakesObjectsNestedTooDeeplyAsMalformed)
{
    std::string text;
    for (std::size_t i = 0; i < 100'000; ++i)
        text += R"({"a":)";
    text += "1" + std::string(100'000, '}');
    EXPECT_TRUE(read(text).json_value().IsNull());
}

TEST(StorageReadJson, ReadsNestingUpToTheLimitAndWritesItBack)
{
    // The root object, "interfaces", "i" and "properties" are four levels.
    std::size_t const inside = storage::max_document_depth - 4;
    std::string const text = with_property(nested_arrays(inside, true));
    auto const document = read(text);
    ASSERT_FALSE(document.json_value().IsNull());
    EXPECT_TRUE(read(written(document)).equals(document));
    EXPECT_TRUE(storage::Object(document).equals(document));
}

TEST(StorageReadJson, TakesOneLevelBeyondTheLimitAsMalformed)
{
    std::size_t const inside = storage::max_document_depth - 3;
    EXPECT_TRUE(read(with_property(nested_arrays(inside, true))).json_value().IsNull());
}

TEST(StorageReadJsonChecked, ReadsAStoredObject)
{
    std::istringstream in(R"({"interfaces": {"i": {"properties": {"P": 0.1}}}, "path": "/a"})");
    storage::Object document;
    document.read_json_checked(in);
    EXPECT_EQ(document.path(), "/a");
    EXPECT_EQ(property_of(document).GetDouble(), 0.1);
}

TEST(StorageReadJsonChecked, RefusesMalformedAndEmptyInputAndKeepsTheDocument)
{
    storage::Object document("/kept");
    for (std::string const& text : std::vector<std::string>{
             "", "   ", "{", R"({"interfaces": {}} x)", "[[[[", nested_arrays(200'000, true)}) {
        std::istringstream in(text);
        EXPECT_EQ(deserialize_error_of([&] { document.read_json_checked(in); }), "Malformed JSON document")
            << text.substr(0, 40);
        EXPECT_EQ(document.path(), "/kept");
    }
}

TEST(StorageReadJsonChecked, RefusesWellFormedJsonThatIsNoStoredObject)
{
    storage::Object document("/kept");
    for (std::string const text :
        {"null", "[]", "{}", R"({"interfaces": []})", R"({"interfaces": {}, "path": 5})"}) {
        std::istringstream in(text);
        EXPECT_EQ(deserialize_error_of([&] { document.read_json_checked(in); }), "Not a stored object")
            << text;
        EXPECT_EQ(document.path(), "/kept");
    }
}
