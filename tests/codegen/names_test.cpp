// SPDX-License-Identifier: LGPL-2.1-or-later
// How D-Bus names become C++ names: the rule, its escapes, the override annotation, and
// the clashes it refuses.
#include "checks.hpp"
#include "mapping.hpp"
#include "names.hpp"
#include "xml_reader.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarvek::codegen {
namespace {

using ::testing::StartsWith;

MappedInterface map(std::string const& xml, Options const& options = {})
{
    static Document document; // the mapped entries point into it
    document = read_xml(xml, "in.xml");
    check_document(document);
    return map_interface(document.interfaces.at(0), options);
}

std::string failure(std::string const& xml, Options const& options = {})
{
    try {
        map(xml, options);
    } catch (InputError const& e) {
        return e.what();
    }
    return "(no error)";
}

TEST(Names, TurnCamelCaseIntoSnakeCase)
{
    EXPECT_EQ(snake_case("GetAll"), "get_all");
    EXPECT_EQ(snake_case("GetIPAddress"), "get_ip_address");
    EXPECT_EQ(snake_case("HwAddress"), "hw_address");
    EXPECT_EQ(snake_case("Ip4Config"), "ip4_config");
    EXPECT_EQ(snake_case("DHCP"), "dhcp");
    EXPECT_EQ(snake_case("UPower"), "upower");
    EXPECT_EQ(snake_case("UInt16"), "uint16");
    EXPECT_EQ(snake_case("PCIDevice"), "pci_device");
    EXPECT_EQ(snake_case("already_snake"), "already_snake");
    EXPECT_EQ(snake_case("lowerCamel"), "lower_camel");
    EXPECT_EQ(snake_case("Timeout_Seconds"), "timeout_seconds");
}

TEST(Names, EscapeKeywordsAndInheritedNamesWithATrailingUnderscore)
{
    EXPECT_EQ(member_name("Delete"), "delete_");
    EXPECT_EQ(member_name("Class"), "class_");
    EXPECT_EQ(member_name("Update"), "update_");
    EXPECT_EQ(member_name("Validate"), "validate_");
    EXPECT_EQ(member_name("std"), "std_");
    EXPECT_EQ(member_name("Level"), "level");
}

TEST(Names, MakeArgumentNamesIntoIdentifiers)
{
    EXPECT_EQ(member_name("package-id"), "package_id");
    EXPECT_EQ(member_name("2nd"), "arg_2nd");
    EXPECT_EQ(member_name(""), "arg_");
}

TEST(Names, TellIdentifiersApart)
{
    EXPECT_TRUE(is_identifier("lamp_2"));
    EXPECT_FALSE(is_identifier("2lamp"));
    EXPECT_FALSE(is_identifier("int"));
    EXPECT_FALSE(is_identifier("a-b"));
    EXPECT_TRUE(is_qualified_identifier("my::ns::Lamp"));
    EXPECT_FALSE(is_qualified_identifier("::Lamp"));
    EXPECT_FALSE(is_qualified_identifier("my::"));
}

TEST(Mapping, TakesTheClassFromTheLastElementAndTheNamespaceFromTheRest)
{
    auto const m = map("<interface name=\"org.freedesktop.PackageKit.Transaction\"/>");
    EXPECT_EQ(m.cpp_namespace, "org::freedesktop::package_kit");
    EXPECT_EQ(m.class_name, "Transaction");
}

TEST(Mapping, KeepsAnInterfaceApartFromTheNamespaceOfItsLongerNamesakes)
{
    auto const shorter = map("<interface name=\"org.freedesktop.UPower\"/>");
    auto const longer = map("<interface name=\"org.freedesktop.UPower.Device\"/>");
    EXPECT_EQ(shorter.cpp_namespace + "::" + shorter.class_name, "org::freedesktop::UPower");
    EXPECT_EQ(longer.cpp_namespace + "::" + longer.class_name, "org::freedesktop::upower::Device");
}

TEST(Mapping, EscapesKeywordsInTheNamespace)
{
    EXPECT_EQ(map("<interface name=\"org.new.Thing\"/>").cpp_namespace, "org::new_");
}

TEST(Mapping, PutsTheClassIntoTheNamespaceOfTheOption)
{
    Options options;
    options.cpp_namespace = "app::bus";
    auto m = map("<interface name=\"org.freedesktop.UPower\"/>", options);
    EXPECT_EQ(m.cpp_namespace, "app::bus");
    EXPECT_EQ(m.class_name, "UPower");
    options.cpp_namespace = "";
    EXPECT_EQ(map("<interface name=\"org.freedesktop.UPower\"/>", options).cpp_namespace, "");
}

TEST(Mapping, NamesMembersHandlersAndArguments)
{
    auto const m = map(R"(<interface name="a.Lamp">
<property name="MaxLevel" type="u" access="read"/>
<signal name="Blinked"><arg name="Count" type="t"/><arg type="s"/></signal>
<method name="GetAll"><arg name="Filter" type="s"/><arg name="reply" type="s"/><arg name="result" type="as" direction="out"/></method>
</interface>)");
    EXPECT_EQ(m.properties.at(0).member, "max_level");
    EXPECT_TRUE(m.properties.at(0).read_only);
    EXPECT_EQ(m.signals.at(0).member, "blinked");
    EXPECT_EQ(m.signals.at(0).arguments.at(0).name, "count");
    EXPECT_EQ(m.signals.at(0).arguments.at(1).name, "arg1");
    EXPECT_EQ(m.methods.at(0).handler, "get_all");
    EXPECT_EQ(m.methods.at(0).member, "get_all_method");
    EXPECT_EQ(m.methods.at(0).in.at(0).name, "filter");
    EXPECT_EQ(m.methods.at(0).in.at(1).name, "reply_");
    EXPECT_EQ(m.methods.at(0).result, "std::vector<std::string>");
}

TEST(Mapping, GivesAMethodMemberNoDoubleUnderscore)
{
    EXPECT_EQ(map("<interface name=\"a.B\"><method name=\"Delete\"/></interface>").methods.at(0).member,
        "delete_method");
}

TEST(Mapping, TakesNamesFromTheOverrideAnnotation)
{
    auto const m = map(R"(<interface name="a.Lamp">
<annotation name="org.tarvek.CppName" value="lights::Bulb"/>
<property name="P" type="u" access="read"><annotation name="org.tarvek.CppName" value="power"/></property>
<method name="M"><annotation name="org.tarvek.CppName" value="act"/>
  <arg type="s"><annotation name="org.tarvek.CppName" value="what"/></arg></method>
</interface>)");
    EXPECT_EQ(m.cpp_namespace, "lights");
    EXPECT_EQ(m.class_name, "Bulb");
    EXPECT_EQ(m.properties.at(0).member, "power");
    EXPECT_EQ(m.methods.at(0).handler, "act");
    EXPECT_EQ(m.methods.at(0).in.at(0).name, "what");
}

TEST(Mapping, RefusesAnOverrideThatIsNoIdentifier)
{
    EXPECT_EQ(failure("<interface name=\"a.B\">\n<method name=\"M\">\n<annotation "
                      "name=\"org.tarvek.CppName\" value=\"do it\"/></method></interface>"),
        "in.xml:3: org.tarvek.CppName \"do it\" is not a C++ identifier");
    EXPECT_EQ(
        failure(
            "<interface name=\"a.B\">\n<annotation name=\"org.tarvek.CppName\" value=\"::B\"/></interface>"),
        "in.xml:2: org.tarvek.CppName \"::B\" is not a C++ class name");
}

TEST(Mapping, RefusesTwoNamesThatMapToOne)
{
    EXPECT_EQ(failure("<interface name=\"a.B\">\n<property name=\"Level\" type=\"u\" access=\"read\"/>\n"
                      "<property name=\"level\" type=\"u\" access=\"read\"/></interface>"),
        "in.xml:3: property level maps to the C++ name level, as property Level (line 2) does; give one of "
        "them "
        "org.tarvek.CppName");
    EXPECT_EQ(
        failure(
            "<interface name=\"a.B\">\n<signal name=\"Changed\"/>\n<method name=\"Changed\"/></interface>"),
        "in.xml:3: method Changed maps to the C++ name changed, as signal Changed (line 2) does; give one of "
        "them org.tarvek.CppName");
    EXPECT_EQ(failure("<interface name=\"a.B\">\n<method name=\"M\">\n<arg name=\"A\" type=\"s\"/>\n<arg "
                      "name=\"a\" type=\"s\"/>"
                      "</method></interface>"),
        "in.xml:4: argument a of method M maps to the C++ name a, as argument A of method M (line 3) does; "
        "give "
        "one of them org.tarvek.CppName");
}

TEST(Mapping, MakesHandlersAnswerLaterOnRequest)
{
    auto const xml
        = R"(<interface name="a.B"><method name="Now"><annotation name="org.tarvek.Async" value="false"/></method>
<method name="Later"><annotation name="org.tarvek.Async" value="true"/></method><method name="Plain"/></interface>)";
    auto m = map(xml);
    EXPECT_FALSE(m.methods.at(0).async);
    EXPECT_TRUE(m.methods.at(1).async);
    EXPECT_FALSE(m.methods.at(2).async);
    Options options;
    options.all_async = true;
    m = map(xml, options);
    EXPECT_FALSE(m.methods.at(0).async);
    EXPECT_TRUE(m.methods.at(2).async);
}

TEST(Mapping, RefusesWhatTheLibraryCannotPublishYet)
{
    EXPECT_THAT(
        failure("<interface name=\"a.B\">\n<property name=\"P\" type=\"s\" access=\"write\"/></interface>"),
        StartsWith("in.xml:2: unsupported: property P is write-only"));
    EXPECT_THAT(
        failure("<interface name=\"a.B\">\n<property name=\"P\" type=\"s\" access=\"read\">\n"
                "<annotation name=\"org.freedesktop.DBus.Property.EmitsChangedSignal\" value=\"const\"/>"
                "</property></interface>"),
        StartsWith("in.xml:3: unsupported: property P has EmitsChangedSignal \"const\""));
    EXPECT_THAT(
        failure(
            "<interface name=\"a.B\">\n"
            "<annotation name=\"org.freedesktop.DBus.Property.EmitsChangedSignal\" value=\"invalidates\"/>"
            "</interface>"),
        StartsWith("in.xml:2: unsupported: interface a.B has EmitsChangedSignal \"invalidates\""));
    EXPECT_THAT(
        failure("<interface name=\"a.B\">\n<method name=\"M\">\n"
                "<annotation name=\"org.freedesktop.DBus.Deprecated\" value=\"true\"/></method></interface>"),
        StartsWith("in.xml:3: unsupported: method M is marked deprecated"));
    EXPECT_THAT(
        failure(
            "<interface name=\"a.B\">\n<method name=\"M\">\n"
            "<annotation name=\"org.freedesktop.DBus.Method.NoReply\" value=\"true\"/></method></interface>"),
        StartsWith("in.xml:3: unsupported: method M is marked NoReply"));
}

} // namespace
} // namespace tarvek::codegen
