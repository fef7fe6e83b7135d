// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/serialization/json_serializer.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>

using tarvek::ObjectPath;
using tarvek::serialization::JSON_Serializer;

namespace {

class JsonSerializerTest : public ::testing::Test {
protected:
    std::ostringstream out;
    JSON_Serializer serializer{out};

    void write_list(std::initializer_list<int> values)
    {
        serializer.list_begin(values.size(), "i");
        for (int const value : values) {
            serializer.list_entry_begin();
            serializer.write(value);
            serializer.list_entry_end();
        }
        serializer.list_end();
    }

    std::string string_text(char const* text, unsigned long size, bool null_terminated)
    {
        serializer.write(text, size, null_terminated);
        return out.str();
    }
};

} // namespace

TEST_F(JsonSerializerTest, PrintsAnEmptyListAsTwoBrackets)
{
    serializer.list_begin(0, "s");
    serializer.list_end();
    EXPECT_EQ(out.str(), "[]");
}

TEST_F(JsonSerializerTest, PrintsAnEmptyDictionaryAsTwoBraces)
{
    serializer.dict_begin(0, "{sv}");
    serializer.dict_end();
    EXPECT_EQ(out.str(), "{}");
}

TEST_F(JsonSerializerTest, PutsACommaAndOneBlankBetweenListEntries)
{
    write_list({1, 2});
    EXPECT_EQ(out.str(), "[1, 2]");
}

TEST_F(JsonSerializerTest, GivesEachNestedContainerItsOwnFirstEntryFlag)
{
    serializer.list_begin(2, "ai");
    serializer.list_entry_begin();
    write_list({1});
    serializer.list_entry_end();
    serializer.list_entry_begin();
    write_list({2, 3});
    serializer.list_entry_end();
    serializer.list_end();
    EXPECT_EQ(out.str(), "[[1], [2, 3]]");
}

TEST_F(JsonSerializerTest, PrintsADictionaryEntryWithNoBlankAroundTheColon)
{
    serializer.dict_begin(2, "{sv}");
    serializer.dict_entry_begin("sv");
    serializer.write("a", 1, true);
    serializer.dict_entry_kv_separator();
    serializer.variant_begin("i");
    serializer.write(1);
    serializer.variant_end();
    serializer.dict_entry_end();
    serializer.dict_entry_begin("sv");
    serializer.write("b", 1, true);
    serializer.dict_entry_kv_separator();
    serializer.variant_begin("ai");
    write_list({2, 3});
    serializer.variant_end();
    serializer.dict_entry_end();
    serializer.dict_end();
    EXPECT_EQ(out.str(), R"({"a":1, "b":[2, 3]})");
}

TEST_F(JsonSerializerTest, PrintsATupleAsAnArray)
{
    serializer.tuple_begin(2, "is");
    serializer.tuple_entry_begin();
    serializer.write(7);
    serializer.tuple_entry_end();
    serializer.tuple_entry_begin();
    serializer.write("x", 0, true);
    serializer.tuple_entry_end();
    serializer.tuple_end();
    EXPECT_EQ(out.str(), R"([7, "x"])");
}

TEST_F(JsonSerializerTest, PrintsAnIntegerKeyBare)
{
    serializer.dict_begin(1, "{ii}");
    serializer.dict_entry_begin("ii");
    serializer.write(1);
    serializer.dict_entry_kv_separator();
    serializer.write(2);
    serializer.dict_entry_end();
    serializer.dict_end();
    EXPECT_EQ(out.str(), "{1:2}");
}

TEST_F(JsonSerializerTest, PrintsAVariantHoldingAListAsTheList)
{
    serializer.variant_begin("ai");
    write_list({4, 5});
    serializer.variant_end();
    EXPECT_EQ(out.str(), "[4, 5]");
}

TEST_F(JsonSerializerTest, NeedsNoContainerForASingleValue)
{
    serializer.write(5);
    EXPECT_EQ(out.str(), "5");
}

TEST_F(JsonSerializerTest, PrintsBooleansAsWords)
{
    serializer.write(true);
    serializer.write(false);
    EXPECT_EQ(out.str(), "truefalse");
}

TEST_F(JsonSerializerTest, PrintsIntegersInFullAtEveryWidth)
{
    serializer.write(static_cast<unsigned char>(255));
    out << ' ';
    serializer.write(static_cast<short>(-32768));
    out << ' ';
    serializer.write(static_cast<unsigned short>(65535));
    out << ' ';
    serializer.write(-2147483647 - 1);
    out << ' ';
    serializer.write(4294967295U);
    out << ' ';
    serializer.write(std::numeric_limits<long>::min());
    out << ' ';
    serializer.write(std::numeric_limits<unsigned long>::max());
    EXPECT_EQ(out.str(),
        "255 -32768 65535 -2147483648 4294967295 -9223372036854775808 18446744073709551615");
}

TEST_F(JsonSerializerTest, PrintsDoublesWithSixSignificantDigitsShortened)
{
    serializer.write(0.1);
    out << ' ';
    serializer.write(1234567.0);
    out << ' ';
    serializer.write(1.0);
    EXPECT_EQ(out.str(), "0.1 1.23457e+06 1");
}

TEST_F(JsonSerializerTest, PrintsNonFiniteDoublesBare)
{
    serializer.write(std::nan(""));
    out << ' ';
    serializer.write(std::numeric_limits<double>::infinity());
    out << ' ';
    serializer.write(-std::numeric_limits<double>::infinity());
    EXPECT_EQ(out.str(), "nan inf -inf");
}

TEST_F(JsonSerializerTest, PrintsAnEmptyNullTerminatedStringAsTwoQuotes)
{
    EXPECT_EQ(string_text("", 0, true), R"("")");
}

TEST_F(JsonSerializerTest, DoesNotTouchANullTextOfSizeZero)
{
    EXPECT_EQ(string_text(nullptr, 0, false), R"("")");
}

TEST_F(JsonSerializerTest, TakesTheLengthFromTheNulWhenTheSizeIsZero)
{
    EXPECT_EQ(string_text("abc", 0, true), R"("abc")");
}

TEST_F(JsonSerializerTest, PrintsExactlySizeBytesWhenASizeIsGiven)
{
    EXPECT_EQ(string_text("abcdef", 2, true), R"("ab")");
}

TEST_F(JsonSerializerTest, EscapesATabAsBackslashT)
{
    EXPECT_EQ(string_text("a\tb", 3, false), R"("a\tb")");
}

TEST_F(JsonSerializerTest, EscapesQuoteBackslashNewlineAndCarriageReturn)
{
    EXPECT_EQ(string_text("\"\\\n\r", 4, false), R"("\"\\\n\r")");
}

TEST_F(JsonSerializerTest, LeavesTheSingleQuoteAlone)
{
    EXPECT_EQ(string_text("it's", 4, false), R"("it's")");
}

TEST_F(JsonSerializerTest, EscapesOtherBytesAsTwoLowerCaseHexDigits)
{
    EXPECT_EQ(string_text("\x7f\xff\x01", 3, false), R"("\x7f\xff\x01")");
}

TEST_F(JsonSerializerTest, EscapesEachByteOfUtf8Separately)
{
    EXPECT_EQ(string_text("\xc3\xa9", 0, true), R"("\xc3\xa9")");
}

TEST_F(JsonSerializerTest, EscapesANulInsideTheSize)
{
    EXPECT_EQ(string_text("a\0b", 3, false), R"("a\x00b")");
}

TEST_F(JsonSerializerTest, PrintsAnEmptyPathAsTwoQuotes)
{
    serializer.write(ObjectPath());
    EXPECT_EQ(out.str(), R"("")");
}

TEST_F(JsonSerializerTest, PrintsAPathAsAQuotedString)
{
    serializer.write(ObjectPath("/a/b_1"));
    EXPECT_EQ(out.str(), R"("/a/b_1")");
}

TEST_F(JsonSerializerTest, LeavesContainersOpenWhenDestroyedEarly)
{
    {
        JSON_Serializer abandoned(out);
        abandoned.list_begin(1, "i");
        abandoned.list_entry_begin();
        abandoned.write(1);
    }
    EXPECT_EQ(out.str(), "[1");
}

TEST_F(JsonSerializerTest, IgnoresAFailedStream)
{
    out.setstate(std::ios::badbit);
    EXPECT_NO_THROW(write_list({1, 2}));
    EXPECT_EQ(out.str(), "");
}

TEST_F(JsonSerializerTest, SeparatesEntriesOfBracketsPrintedByTheCaller)
{
    out << '<';
    serializer.open_container();
    serializer.add_entry();
    out << 'a';
    serializer.add_entry();
    out << 'b';
    serializer.close_container();
    out << '>';
    EXPECT_EQ(out.str(), "<a, b>");
}
