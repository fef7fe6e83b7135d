// SPDX-License-Identifier: LGPL-2.1-or-later
// D-Bus signatures: which are valid, and the C++ types that generated headers use for them.
#include "checks.hpp"
#include "mapping.hpp"
#include "types.hpp"
#include "xml_reader.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

namespace tarvek::codegen {
namespace {

using ::testing::StartsWith;

std::string type(std::string const& signature)
{
    std::set<std::string> includes;
    return cpp_type(signature, includes);
}

TEST(Signatures, AcceptWhatDBusAccepts)
{
    for (char const* s : {"y", "b", "n", "q", "i", "u", "x", "t", "d", "s", "o", "g", "h", "v", "as", "a{sv}",
             "aa{sa(iu)}", "(i)", "((ss)v)", "a(oa{sv})", "a{ta{yb}}"})
        EXPECT_EQ(signature_problem(s, true), "") << s;
    EXPECT_EQ(signature_problem("", false), "");
    EXPECT_EQ(signature_problem("sia{sv}", false), "");
}

TEST(Signatures, RefuseWhatDBusRefuses)
{
    EXPECT_EQ(signature_problem("", true), "the type is empty");
    EXPECT_EQ(signature_problem("()", true), "an empty struct \"()\" is not allowed");
    EXPECT_EQ(signature_problem("a{s}", true), "a dictionary entry needs a key and a value");
    EXPECT_EQ(
        signature_problem("a{sss}", true), "a dictionary entry must have exactly one value type and a '}'");
    EXPECT_EQ(signature_problem("a{(s)s}", true), "a dictionary key must be a basic type");
    EXPECT_EQ(signature_problem("(ss", true), "a struct is not closed with ')'");
    EXPECT_EQ(signature_problem(")", true), "unknown type code ')'");
    EXPECT_EQ(signature_problem(std::string(33, 'a') + "i", true), "arrays are nested deeper than 32");
    EXPECT_EQ(signature_problem(std::string(33, '(') + "i" + std::string(33, ')'), true),
        "structs are nested deeper than 32");
    EXPECT_EQ(signature_problem(std::string(256, 'i'), false), "the signature is longer than 255 characters");
}

TEST(Types, MapEveryBasicCodeThatTheLibraryCarries)
{
    EXPECT_EQ(type("y"), "std::uint8_t");
    EXPECT_EQ(type("b"), "bool");
    EXPECT_EQ(type("n"), "std::int16_t");
    EXPECT_EQ(type("q"), "std::uint16_t");
    EXPECT_EQ(type("i"), "std::int32_t");
    EXPECT_EQ(type("u"), "std::uint32_t");
    EXPECT_EQ(type("x"), "std::int64_t");
    EXPECT_EQ(type("t"), "std::uint64_t");
    EXPECT_EQ(type("d"), "double");
    EXPECT_EQ(type("s"), "std::string");
    EXPECT_EQ(type("o"), "tarvek::ObjectPath");
}

TEST(Types, MapArraysDictionariesAndStructs)
{
    EXPECT_EQ(type("as"), "std::vector<std::string>");
    EXPECT_EQ(type("a{su}"), "std::map<std::string, std::uint32_t>");
    EXPECT_EQ(type("(ddd)"), "std::tuple<double, double, double>");
    EXPECT_EQ(type("a{oa(ib)}"), "std::map<tarvek::ObjectPath, std::vector<std::tuple<std::int32_t, bool>>>");
}

TEST(Types, CollectTheHeadersTheyNeed)
{
    std::set<std::string> includes;
    cpp_type("a{o(yas)}", includes);
    EXPECT_EQ(includes,
        (std::set<std::string>{
            "<cstdint>", "<map>", "<string>", "<tuple>", "<vector>", "<tarvek/common/object_path.hpp>"}));
}

TEST(Types, ReportCodesThatAreNotCarriedYet)
{
    EXPECT_THROW(type("v"), UnsupportedType);
    EXPECT_THROW(type("a{sv}"), UnsupportedType);
    EXPECT_THROW(type("h"), UnsupportedType);
    EXPECT_THROW(type("(sg)"), UnsupportedType);
    try {
        type("ah");
    } catch (UnsupportedType const& e) {
        EXPECT_STREQ(e.what(), "file descriptors (h) are not supported yet");
    }
}

TEST(Types, ReportAnUnsupportedTypeWithFileAndLine)
{
    auto document
        = read_xml("<interface name=\"a.B\">\n<signal name=\"S\">\n<arg name=\"data\" type=\"a{sv}\"/>"
                   "</signal></interface>",
            "in.xml");
    check_document(document);
    try {
        map_interface(document.interfaces.at(0), {});
        FAIL() << "no error";
    } catch (InputError const& e) {
        EXPECT_STREQ(e.what(),
            "in.xml:3: unsupported type \"a{sv}\" of argument data of signal S: variants (v) are not "
            "supported yet");
    }
}

TEST(Types, GiveSeveralOutArgumentsOneTupleForNow)
{
    auto const a = Argument{};
    EXPECT_EQ(result_type({}), "void");
    EXPECT_EQ(result_type({{&a, "x", "bool"}}), "bool");
    EXPECT_EQ(result_type({{&a, "x", "bool"}, {&a, "y", "std::string"}}), "std::tuple<bool, std::string>");
}

} // namespace
} // namespace tarvek::codegen
