// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek::Variant written through the sink and read back through the source of each back
// end: JSON text, a stored document and a bus message. Each must give back the same
// signature and the same value.
#include "support/codecs.hpp"
#include "support/sdbus_codec.hpp"

#include <tarvek/provider/variant.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <tuple>
#include <vector>

using tarvek::ObjectPath;
using tarvek::Variant;

namespace {

using Meta = std::map<std::string, Variant>;

template <class Codec> class VariantRoundTrip : public ::testing::Test {
protected:
    template <class T> static T round_trip(T const& value)
    {
        typename Codec::Encoded encoded;
        {
            auto sink = Codec::writer(encoded);
            tarvek::provider::write_value(*sink, value);
        }
        auto source = Codec::reader(encoded);
        return tarvek::provider::read_value<T>(*source);
    }
};

struct CodecName {
    template <class Codec> static std::string GetName(int /*index*/) { return Codec::name; }
};

using Codecs
    = ::testing::Types<tarvek::test::JsonTextCodec, tarvek::test::DocumentCodec, tarvek::test::SDBusCodec>;
TYPED_TEST_SUITE(VariantRoundTrip, Codecs, CodecName);

} // namespace

TYPED_TEST(VariantRoundTrip, ReadsBackEveryBasicType)
{
    std::vector<Variant> const values{
        Variant(true),
        Variant(false),
        Variant(std::uint8_t{255}),
        Variant(std::int16_t{-32768}),
        Variant(std::uint16_t{65535}),
        Variant(std::numeric_limits<int>::min()),
        Variant(std::numeric_limits<unsigned int>::max()),
        Variant(std::numeric_limits<long>::min()),
        Variant(std::numeric_limits<unsigned long>::max()),
        Variant(-1234.5),
        Variant("quote \" backslash \\ tab \t"),
        Variant(""),
        Variant(ObjectPath("/org/sample/lamp_1")),
    };
    for (Variant const& value : values) {
        Variant const read = this->round_trip(value);

        EXPECT_EQ(read.signature(), value.signature());
        EXPECT_EQ(read, value) << value.signature();
    }
}

TYPED_TEST(VariantRoundTrip, ReadsBackNestedVariants)
{
    Variant const value
        = Variant::of(Variant::of(Variant(std::vector<Variant>{Variant(1), Variant::of(Variant("x"))})));

    Variant const read = this->round_trip(value);

    EXPECT_EQ(read.signature(), "v");
    EXPECT_EQ(read, value);
    EXPECT_EQ(read.get<Variant>()
                  .get<Variant>()
                  .get<std::vector<Variant>>()
                  .at(1)
                  .get<Variant>()
                  .get<std::string>(),
        "x");
}

TYPED_TEST(VariantRoundTrip, ReadsBackVariantsOfContainers)
{
    std::vector<Variant> const values{
        Variant(std::vector<int>{1, -2, 3}),
        Variant(std::map<std::string, std::uint32_t>{{"a", 1}, {"b", 2}}),
        Variant(std::map<int, std::string>{{-1, "minus"}, {7, "seven"}}),
        Variant(std::tuple<int, std::string, std::vector<double>>{4, "four", {0.25, -8}}),
        Variant(std::vector<std::vector<std::string>>{{"a"}, {}, {"b", "c"}}),
        Variant(std::map<std::string, std::vector<std::tuple<bool, ObjectPath>>>{
            {"paths", {{true, ObjectPath("/a")}, {false, ObjectPath("/b/c")}}}}),
    };
    for (Variant const& value : values) {
        Variant const read = this->round_trip(value);

        EXPECT_EQ(read, value) << value.signature();
    }
}

TYPED_TEST(VariantRoundTrip, ReadsBackEmptyContainers)
{
    std::vector<Variant> const values{
        Variant(std::vector<std::string>{}),
        Variant(Meta{}),
        Variant(std::vector<std::vector<int>>{{}}),
        Variant(std::vector<Variant>{}),
    };
    for (Variant const& value : values) {
        Variant const read = this->round_trip(value);

        EXPECT_EQ(read, value) << value.signature();
    }
}

TYPED_TEST(VariantRoundTrip, ReadsBackAStringToVariantDictionary)
{
    Meta const value{
        {"title", "Song"},
        {"length", 240L},
        {"rating", 0.5},
        {"artists", std::vector<std::string>{"One", "Two"}},
        {"empty", Meta{}},
        {"inner", Meta{{"deep", Variant::of(Variant(std::uint8_t{9}))}}},
    };

    Meta const read = this->round_trip(value);

    EXPECT_EQ(read, value);
    EXPECT_EQ(read.at("artists").get<std::vector<std::string>>().at(1), "Two");
}

TYPED_TEST(VariantRoundTrip, ReadsBackVariantsAmongOtherValues)
{
    using Row = std::tuple<int, Variant, std::string>;
    std::vector<Row> const value{{1, Variant(2.5), "a"}, {2, Variant(Meta{{"k", "v"}}), "b"}};

    std::vector<Row> const read = this->round_trip(value);

    EXPECT_EQ(read, value);
}
