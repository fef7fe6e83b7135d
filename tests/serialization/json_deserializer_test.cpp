// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/serialization/json_deserializer.hpp>

#include <tarvek/common/exceptions.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <sstream>
#include <string>

#include <unistd.h>

using tarvek::deserialize_error;
using tarvek::ObjectPath;
using tarvek::serialization::JSON_Deserializer;

namespace {

class JsonDeserializerTest : public ::testing::Test {
protected:
    std::istringstream in;
    JSON_Deserializer reader{in};

    void input(std::string const& text)
    {
        in.str(text);
        in.clear();
    }

    std::string rest()
    {
        in.clear();
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
};

template <class Operation>
std::string error_of(Operation operation)
{
    try {
        operation();
    } catch (deserialize_error const& e) {
        return e.what();
    }
    return "no error";
}

// Puts `bytes` on the process's stdin for the life of the object, where \x escapes take
// their digits from.
class StdinFeed {
public:
    explicit StdinFeed(std::string const& bytes) : saved_(::dup(STDIN_FILENO))
    {
        int fds[2];
        EXPECT_EQ(::pipe(fds), 0);
        EXPECT_EQ(::write(fds[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        ::close(fds[1]);
        ::dup2(fds[0], STDIN_FILENO);
        ::close(fds[0]);
        std::clearerr(stdin);
    }
    ~StdinFeed()
    {
        ::dup2(saved_, STDIN_FILENO);
        ::close(saved_);
        std::clearerr(stdin);
    }
    StdinFeed(StdinFeed const&) = delete;
    StdinFeed& operator=(StdinFeed const&) = delete;

private:
    int saved_;
};

} // namespace

TEST_F(JsonDeserializerTest, LeavesAnEmptyListAtTheFirstTryExit)
{
    input("[]x");
    EXPECT_EQ(reader.list_enter(), -1);
    EXPECT_TRUE(reader.list_try_exit());
    EXPECT_EQ(rest(), "x");
}

TEST_F(JsonDeserializerTest, AcceptsWhitespaceBeforeEveryToken)
{
    input(" [1 , 2 ] ");
    EXPECT_EQ(reader.list_enter(), -1);
    EXPECT_FALSE(reader.list_try_exit());
    EXPECT_EQ(reader.read_int32(), 1);
    EXPECT_FALSE(reader.list_try_exit());
    reader.list_read_separator();
    EXPECT_EQ(reader.read_int32(), 2);
    EXPECT_TRUE(reader.list_try_exit());
}

TEST_F(JsonDeserializerTest, LeavesTheClosingBraceForDictExit)
{
    input(R"({"a":1}x)");
    EXPECT_EQ(reader.dict_enter(), -1);
    EXPECT_TRUE(reader.dict_entry_try_enter(true));
    EXPECT_EQ(reader.read_string(), "a");
    reader.dict_entry_read_kv_separator();
    EXPECT_EQ(reader.read_int32(), 1);
    reader.dict_entry_exit();
    EXPECT_FALSE(reader.dict_entry_try_enter(false));
    EXPECT_EQ(in.peek(), '}');
    reader.dict_exit();
    EXPECT_EQ(rest(), "x");
}

TEST_F(JsonDeserializerTest, ReadsTwoDictionaryEntriesSeparatedByAComma)
{
    input(R"({"a":1, "b":2})");
    reader.dict_enter();
    ASSERT_TRUE(reader.dict_entry_try_enter(true));
    reader.read_string();
    reader.dict_entry_read_kv_separator();
    reader.read_int32();
    reader.dict_entry_exit();
    ASSERT_TRUE(reader.dict_entry_try_enter(false));
    EXPECT_EQ(reader.read_string(), "b");
    reader.dict_entry_read_kv_separator();
    EXPECT_EQ(reader.read_int32(), 2);
    reader.dict_entry_exit();
    EXPECT_FALSE(reader.dict_entry_try_enter(false));
    reader.dict_exit();
}

TEST_F(JsonDeserializerTest, RefusesDictionaryEntriesWithoutAComma)
{
    input(R"({"a":1 "b":2})");
    reader.dict_enter();
    reader.dict_entry_try_enter(true);
    reader.read_string();
    reader.dict_entry_read_kv_separator();
    reader.read_int32();
    reader.dict_entry_exit();
    EXPECT_EQ(error_of([&] { reader.dict_entry_try_enter(false); }), "Parse error");
}

TEST_F(JsonDeserializerTest, EntersTheFirstEntryOfATruncatedDictionaryAndFailsOnTheKey)
{
    input("{");
    reader.dict_enter();
    EXPECT_TRUE(reader.dict_entry_try_enter(true));
    EXPECT_EQ(error_of([&] { reader.read_string(); }), "Expected string");
}

TEST_F(JsonDeserializerTest, RefusesALaterEntryOfATruncatedDictionary)
{
    input("{");
    reader.dict_enter();
    EXPECT_EQ(error_of([&] { reader.dict_entry_try_enter(false); }), "Parse error");
}

TEST_F(JsonDeserializerTest, ReportsEofWhereASeparatorIsExpected)
{
    input("[1");
    reader.list_enter();
    reader.list_try_exit();
    reader.read_int32();
    EXPECT_FALSE(reader.list_try_exit());
    EXPECT_EQ(error_of([&] { reader.list_read_separator(); }), "Expected ',', got EOF");
}

TEST_F(JsonDeserializerTest, NamesTheUnexpectedCharacterAndItsCode)
{
    input(R"({"a"x)");
    reader.dict_enter();
    reader.dict_entry_try_enter(true);
    reader.read_string();
    EXPECT_EQ(error_of([&] { reader.dict_entry_read_kv_separator(); }), "Expected ':', got 'x' (120)");
    EXPECT_EQ(rest(), "x");
}

TEST_F(JsonDeserializerTest, ReportsAFailedStreamAsCharacterMinusOne)
{
    input("]");
    in.setstate(std::ios::failbit);
    EXPECT_EQ(error_of([&] { reader.tuple_exit(); }), "Expected ']', got '\xff' (-1)");
}

TEST_F(JsonDeserializerTest, RefusesATrailingCommaInAListAsANumber)
{
    input("[1,]");
    reader.list_enter();
    reader.list_try_exit();
    reader.read_int32();
    reader.list_try_exit();
    reader.list_read_separator();
    EXPECT_EQ(error_of([&] { reader.read_int32(); }), "Failed to parse number");
}

TEST_F(JsonDeserializerTest, ReadsATupleAsAnArray)
{
    input(R"([1, "x"])");
    reader.tuple_enter();
    EXPECT_EQ(reader.read_int32(), 1);
    reader.tuple_read_separator();
    EXPECT_EQ(reader.read_string(), "x");
    reader.tuple_exit();
    EXPECT_EQ(rest(), "");
}

TEST_F(JsonDeserializerTest, DoesNotSkipWhitespaceInTheEmptyOperations)
{
    input("  1");
    reader.variant_enter();
    reader.variant_exit();
    reader.dict_entry_exit();
    EXPECT_EQ(rest(), "  1");
}

TEST_F(JsonDeserializerTest, ReadsAStringInSingleQuotesWithADoubleQuoteInside)
{
    input(R"('it"s')");
    EXPECT_EQ(reader.read_string(), "it\"s");
}

TEST_F(JsonDeserializerTest, RefusesAStringWithoutQuote)
{
    input("abc");
    EXPECT_EQ(error_of([&] { reader.read_string(); }), "Expected string");
}

TEST_F(JsonDeserializerTest, DecodesTheLetterEscapesAndTakesAnyOtherEscapedCharacterAsItIs)
{
    input(R"("\n\t\r\b\"\\\'\/\f\u")");
    EXPECT_EQ(reader.read_string(), "\n\t\r\b\"\\'/fu");
}

TEST_F(JsonDeserializerTest, TakesTheDigitsOfAByteEscapeFromStandardInput)
{
    StdinFeed const feed("4f");
    input(R"("\x41")");
    EXPECT_EQ(reader.read_string(), "O41");
}

TEST_F(JsonDeserializerTest, AcceptsUpperCaseDigitsInAByteEscape)
{
    StdinFeed const feed("C3");
    input(R"("\x")");
    EXPECT_EQ(reader.read_string(), "\xc3");
}

TEST_F(JsonDeserializerTest, RefusesAByteEscapeWithANonHexDigit)
{
    StdinFeed const feed("4g");
    input(R"("\x4g")");
    EXPECT_EQ(error_of([&] { reader.read_string(); }), "Invalid hex digit");
}

TEST_F(JsonDeserializerTest, RefusesAByteEscapeWhenStandardInputIsAtItsEnd)
{
    StdinFeed const feed("");
    input(R"("\x41")");
    EXPECT_EQ(error_of([&] { reader.read_string(); }), "Invalid hex digit");
}

TEST_F(JsonDeserializerTest, ReadsBothBooleans)
{
    input("true false");
    EXPECT_TRUE(reader.read_bool());
    EXPECT_FALSE(reader.read_bool());
}

TEST_F(JsonDeserializerTest, RefusesABooleanWithACapital)
{
    input("True");
    EXPECT_EQ(error_of([&] { reader.read_bool(); }), "Parse error: Expected bool");
}

TEST_F(JsonDeserializerTest, RefusesABooleanWithTrailingLetters)
{
    input("truex");
    EXPECT_EQ(error_of([&] { reader.read_bool(); }), "Parse error: Expected bool");
    EXPECT_EQ(rest(), "");
}

TEST_F(JsonDeserializerTest, LeavesTheCommaAfterABoolean)
{
    input("true,");
    EXPECT_TRUE(reader.read_bool());
    EXPECT_EQ(rest(), ",");
}

TEST_F(JsonDeserializerTest, StopsABooleanTokenAtItsTwentiethCharacter)
{
    input(std::string(25, 'a'));
    EXPECT_EQ(error_of([&] { reader.read_bool(); }), "Parse error: Expected bool");
    EXPECT_EQ(rest(), std::string(5, 'a'));
}

TEST_F(JsonDeserializerTest, RefusesAnEmptyBooleanToken)
{
    input(",");
    EXPECT_EQ(error_of([&] { reader.read_bool(); }), "Parse error: Expected bool");
}

TEST_F(JsonDeserializerTest, EndsADoubleBeforeAnUpperCaseExponent)
{
    input("1E5");
    EXPECT_EQ(reader.read_double(), 1.0);
    EXPECT_EQ(rest(), "E5");
}

TEST_F(JsonDeserializerTest, ReadsALowerCaseExponent)
{
    input("2.5e3");
    EXPECT_EQ(reader.read_double(), 2500.0);
}

TEST_F(JsonDeserializerTest, RefusesNanAsANumber)
{
    input("nan");
    EXPECT_EQ(error_of([&] { reader.read_double(); }), "Failed to parse number");
}

TEST_F(JsonDeserializerTest, RefusesASignAloneAsANumber)
{
    input("-");
    EXPECT_EQ(error_of([&] { reader.read_int32(); }), "Failed to parse number");
}

TEST_F(JsonDeserializerTest, CutsALongNumberAtOneHundredFortyNineCharacters)
{
    input(std::string(149, '1') + std::string(51, '2'));
    reader.read_double();
    EXPECT_EQ(rest(), std::string(51, '2'));
}

TEST_F(JsonDeserializerTest, DropsWhatTheIntegerFormatLeaves)
{
    input("1.5 1e5");
    EXPECT_EQ(reader.read_int32(), 1);
    EXPECT_EQ(reader.read_int32(), 1);
    EXPECT_EQ(rest(), "");
}

TEST_F(JsonDeserializerTest, LetsTheFormatWidthDecideTheRange)
{
    input("300 -1");
    EXPECT_EQ(reader.read_byte(), 44);
    EXPECT_EQ(reader.read_uint32(), 4294967295U);
}

TEST_F(JsonDeserializerTest, ReadsEveryIntegerWidthAtItsLimits)
{
    input("255 -32768 65535 -2147483648 4294967295 -9223372036854775808 18446744073709551615");
    EXPECT_EQ(reader.read_byte(), 255);
    EXPECT_EQ(reader.read_int16(), -32768);
    EXPECT_EQ(reader.read_uint16(), 65535);
    EXPECT_EQ(reader.read_int32(), std::numeric_limits<int>::min());
    EXPECT_EQ(reader.read_uint32(), 4294967295U);
    EXPECT_EQ(reader.read_int64(), std::numeric_limits<long>::min());
    EXPECT_EQ(reader.read_uint64(), std::numeric_limits<unsigned long>::max());
}

TEST_F(JsonDeserializerTest, ReadsAnEmptyPathFromAnEmptyString)
{
    input(R"("")");
    EXPECT_EQ(reader.read_path(), ObjectPath());
}

TEST_F(JsonDeserializerTest, ReadsAValidPath)
{
    input(R"("/a/b")");
    EXPECT_EQ(reader.read_path(), ObjectPath("/a/b"));
}

TEST_F(JsonDeserializerTest, RefusesAnInvalidPath)
{
    input(R"("a/b")");
    try {
        reader.read_path();
        FAIL() << "no exception";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "String is not a valid ObjectPath");
    }
}

TEST(JsonDeserializerFormats, NameTheScanFormatOfEachNumberType)
{
    using tarvek::serialization::json::detail::format;
    EXPECT_STREQ(format<double>::scan_fmt, "%lf");
    EXPECT_STREQ(format<unsigned long>::scan_fmt, "%lu");
    EXPECT_STREQ(format<long>::scan_fmt, "%ld");
    EXPECT_STREQ(format<unsigned int>::scan_fmt, "%u");
    EXPECT_STREQ(format<int>::scan_fmt, "%d");
    EXPECT_STREQ(format<unsigned short>::scan_fmt, "%hu");
    EXPECT_STREQ(format<short>::scan_fmt, "%hd");
    EXPECT_STREQ(format<unsigned char>::scan_fmt, "%hhu");
}
