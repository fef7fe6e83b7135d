// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek::Variant as a value: its signature, conversions, equality, and the refusals of
// what it cannot hold when it is read from outside.
#include <tarvek/provider/variant.hpp>
#include <tarvek/serialization/json_deserializer.hpp>
#include <tarvek/serialization/json_serializer.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

using tarvek::Variant;

namespace {

struct Color {
    double r = 0, g = 0, b = 0;
    bool operator==(Color const&) const = default;
};

using Meta = std::map<std::string, Variant>;

// Reads a variant from JSON text, as a client of the text form would hand it over.
Variant read_text(std::string const& text)
{
    std::istringstream in(text);
    tarvek::serialization::JSON_Deserializer source(in);
    return Variant::read(source);
}

std::string nested_text(unsigned levels)
{
    std::string text;
    for (unsigned i = 0; i < levels; ++i)
        text += R"({"signature":"v", "value":)";
    text += R"({"signature":"i", "value":1})";
    text += std::string(levels, '}');
    return text;
}

} // namespace

template <>
inline constexpr auto tarvek::provider::struct_members<Color> = std::make_tuple(
    &Color::r, &Color::g, &Color::b);

static_assert(tarvek::provider::BusValue<Variant>);
static_assert(std::string_view(tarvek::provider::signature_of<Meta>) == "a{sv}");
static_assert(tarvek::provider::carries_fd<tarvek::common::FileDescriptor>);
static_assert(tarvek::provider::carries_fd<std::tuple<int, tarvek::common::FileDescriptor>>);
static_assert(!tarvek::provider::carries_fd<Meta>);

TEST(Variant, KnowsTheSignatureOfWhatItHolds)
{
    EXPECT_EQ(Variant(true).signature(), "b");
    EXPECT_EQ(Variant(std::uint8_t{1}).signature(), "y");
    EXPECT_EQ(Variant(std::int16_t{1}).signature(), "n");
    EXPECT_EQ(Variant(std::uint16_t{1}).signature(), "q");
    EXPECT_EQ(Variant(1).signature(), "i");
    EXPECT_EQ(Variant(1U).signature(), "u");
    EXPECT_EQ(Variant(1L).signature(), "x");
    EXPECT_EQ(Variant(1UL).signature(), "t");
    EXPECT_EQ(Variant(1.5).signature(), "d");
    EXPECT_EQ(Variant("text").signature(), "s");
    EXPECT_EQ(Variant(tarvek::ObjectPath("/a")).signature(), "o");
    EXPECT_EQ(Variant(std::vector<int>{1}).signature(), "ai");
    EXPECT_EQ(Variant(Meta{{"k", 1}}).signature(), "a{sv}");
    EXPECT_EQ(Variant(Color{1, 2, 3}).signature(), "(ddd)");
    EXPECT_EQ(Variant::of(Variant(1)).signature(), "v");
}

TEST(Variant, GivesBackTheValueItHolds)
{
    Meta const meta{{"title", "Song"}, {"length", 240L}, {"tags", std::vector<std::string>{"a", "b"}}};
    Variant const held(meta);

    Meta const back = held.get<Meta>();

    EXPECT_EQ(back, meta);
    EXPECT_EQ(back.at("title").get<std::string>(), "Song");
    EXPECT_EQ(back.at("length").get<long>(), 240L);
    EXPECT_EQ(Variant(Color{1, 2, 3}).get<Color>(), (Color{1, 2, 3}));
}

TEST(Variant, NestsAVariantOnlyThroughOf)
{
    Variant const inner(7);

    Variant const copy(inner);
    Variant const boxed = Variant::of(inner);

    EXPECT_EQ(copy.signature(), "i");
    EXPECT_EQ(boxed.signature(), "v");
    EXPECT_EQ(boxed.get<Variant>(), inner);
    EXPECT_EQ(boxed.get<Variant>().get<int>(), 7);
}

TEST(Variant, RefusesAConversionToAnotherTypeWithTheTwoSignatures)
{
    Variant const held(7);

    EXPECT_TRUE(held.holds<int>());
    EXPECT_FALSE(held.holds<long>());
    try {
        held.get<std::string>();
        FAIL() << "no exception";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "Variant holds i, not s");
    }
    EXPECT_THROW(held.get<long>(), tarvek::invalid_argument);
}

TEST(Variant, EmptyOneHoldsNothingAndCannotBeWritten)
{
    Variant const empty;
    std::ostringstream out;
    tarvek::serialization::JSON_Serializer sink(out);

    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(empty.signature(), "");
    EXPECT_THROW(empty.get<int>(), tarvek::invalid_argument);
    EXPECT_THROW(empty.write(sink), tarvek::invalid_state_error);
    EXPECT_EQ(out.str(), "");
}

TEST(Variant, ComparesEqualBySignatureAndValue)
{
    EXPECT_EQ(Variant(5), Variant(5));
    EXPECT_NE(Variant(5), Variant(6));
    EXPECT_NE(Variant(5), Variant(5L)); // same number, another type
    EXPECT_NE(Variant(std::vector<int>{}), Variant(std::vector<long>{}));
    EXPECT_NE(Variant(Variant::of(Variant(5))), Variant(5));
    EXPECT_EQ(Variant(Meta{{"a", 1}}), Variant(Meta{{"a", 1}}));
    EXPECT_NE(Variant(Meta{{"a", 1}}), Variant(Meta{{"a", 1U}}));
    EXPECT_EQ(Variant(), Variant());
}

TEST(Variant, CopiesAreIndependent)
{
    Meta meta{{"a", 1}};
    Variant const before(meta);
    Variant copy = before;

    copy = Variant(Meta{{"a", 2}});

    EXPECT_EQ(before.get<Meta>().at("a").get<int>(), 1);
}

TEST(Variant, RefusesASignatureThatIsNotOneCompleteType)
{
    for (char const* signature : {"", "ii", "(i", "a", "a{vs}", "a{i}", "()", "g", "z", "{si}"}) {
        std::string const text = std::string(R"({"signature":")") + signature + R"(", "value":1})";
        EXPECT_THROW(read_text(text), tarvek::invalid_argument) << signature;
    }
}

TEST(Variant, RefusesADescriptorInsideWhenRead)
{
    try {
        read_text(R"({"signature":"ah", "value":[]})");
        FAIL() << "no exception";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "A Variant cannot hold a file descriptor");
    }
}

TEST(Variant, RefusesMoreThan32ArraysInOneSignature)
{
    std::string const signature = std::string(33, 'a') + "i";

    EXPECT_THROW(read_text(R"({"signature":")" + signature + R"(", "value":[]})"), tarvek::invalid_argument);
}

TEST(Variant, ReadsNestingUpToTheLimit)
{
    Variant const read = read_text(nested_text(Variant::max_depth));

    EXPECT_EQ(read.signature(), "v");
}

TEST(Variant, RefusesNestingBeyondTheLimit)
{
    try {
        read_text(nested_text(Variant::max_depth + 1));
        FAIL() << "no exception";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "Variant nested too deeply");
    }
}
