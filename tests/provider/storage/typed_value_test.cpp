// SPDX-License-Identifier: LGPL-2.1-or-later
// Typed values in storage properties: each type of the value mapping is stored, written,
// read and handed to a live property of that type.
#include "document_text.hpp"
#include "live_objects.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/storage/documents.hpp>
#include <tarvek/provider/storage/typed_value.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace storage = tarvek::provider::storage;

using storage_test::Color;
using storage_test::text_of;

namespace {

// Every type under test, with a value other than its default, found by its type.
using Samples = std::tuple<bool, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t,
    std::int64_t, std::uint64_t, double, std::string, tarvek::ObjectPath, std::vector<std::int32_t>,
    std::map<std::string, std::vector<std::uint64_t>>, std::tuple<bool, std::string, double>, Color>;

Samples const samples{true, 200, -32768, 65535, -7, 4000000000U, std::numeric_limits<std::int64_t>::min(),
    std::numeric_limits<std::uint64_t>::max(), -2.5e-300, "tab\there", tarvek::ObjectPath("/a/b"), {1, 2, 3},
    {{"a", {1}}, {"b", {}}}, {true, "x", 1.5}, {0.1, 0.2, 0.3}};

template <class T>
T sample()
{
    return std::get<T>(samples);
}

template <class Tuple>
struct TypesOf;
template <class... T>
struct TypesOf<std::tuple<T...>> {
    using type = testing::Types<T...>;
};

template <class T>
class TypedValueOfEachType : public testing::Test {
};

using StoredTypes = TypesOf<Samples>::type;
TYPED_TEST_SUITE(TypedValueOfEachType, StoredTypes);

} // namespace

TYPED_TEST(TypedValueOfEachType, ReadsBackWhatWasSet)
{
    storage::Property property("P");
    storage::set_value(property, sample<TypeParam>());
    EXPECT_TRUE(storage::get_value<TypeParam>(property) == sample<TypeParam>());
}

TYPED_TEST(TypedValueOfEachType, SurvivesWritingAndReadingTheDocument)
{
    storage::Object const document(
        "/a", {storage::Interface("i", {storage::make_property("P", sample<TypeParam>())})});
    std::stringstream text;
    document.write_json(text, false);
    storage::Object read_back;
    text >> read_back;
    auto const property = read_back.interfaces().try_find("i")->properties().try_find("P");
    ASSERT_TRUE(property.has_value());
    EXPECT_TRUE(storage::get_value<TypeParam>(*property) == sample<TypeParam>());
}

TEST(TypedValue, GetValueOfANullPropertyRaises)
{
    storage::Property const property("Level");
    try {
        storage::get_value<std::int32_t>(property);
        FAIL() << "no error";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "Property is at its default: Level");
    }
}

TEST(TypedValue, TryGetValueOfANullPropertyGivesNothing)
{
    EXPECT_FALSE(storage::try_get_value<std::int32_t>(storage::Property("Level")).has_value());
}

TEST(TypedValue, TryGetValueOfASetPropertyGivesTheValue)
{
    EXPECT_EQ(storage::try_get_value<std::int32_t>(storage::make_property("Level", 4)), 4);
}

TEST(TypedValue, SetValueReplacesAValueOfAnotherKind)
{
    storage::Property property = storage::make_property("P", std::vector<std::int32_t>{1, 2});
    storage::set_value(property, std::string("x"));
    EXPECT_EQ(text_of(property.json_value()), R"("x")");
}

TEST(TypedValue, AValueOfAnotherKindIsReportedAndNotRaised)
{
    storage::Property const property = storage::make_property("P", std::string("x"));
    testing::internal::CaptureStderr();
    storage::get_value<std::int32_t>(property);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "RAPIDJSON_ASSERT(data_.f.flags & kIntFlag)\n");
}

TEST(TypedValue, ATupleWithAnElementLeftOverRaises)
{
    storage::Property const property = storage::make_property("P", std::vector<std::int32_t>{1, 2, 3});
    try {
        storage::get_value<std::tuple<std::int32_t, std::int32_t>>(property);
        FAIL() << "no error";
    } catch (tarvek::deserialize_error const& e) {
        EXPECT_STREQ(e.what(), "Failed to exit tuple");
    }
}

TEST(TypedValue, IsTheFormThatALivePropertyOfTheSameTypeReads)
{
    storage_test::LiveObject live("/a");
    storage::Interface const stored("org.sample.Everything",
        {storage::make_property("Color", Color{0.5, 0.25, 0.125}),
            storage::make_property("Dict", std::map<std::string, std::int32_t>{{"k", 3}})});
    stored.apply(live.everything);
    EXPECT_EQ(live.everything.color.get(), (Color{0.5, 0.25, 0.125}));
    EXPECT_EQ(live.everything.dict.get(), (std::map<std::string, std::int32_t>{{"k", 3}}));
}

TEST(TypedValue, ReadsWhatALivePropertyOfTheSameTypeStored)
{
    storage_test::LiveObject live("/a");
    live.everything.set_all();
    storage::Interface const captured(live.everything);
    auto const pair = captured.properties().try_find("Pair");
    ASSERT_TRUE(pair.has_value());
    EXPECT_EQ((storage::get_value<std::tuple<std::int32_t, std::string>>(*pair)),
        (std::tuple<std::int32_t, std::string>{7, "seven"}));
}
