// SPDX-License-Identifier: LGPL-2.1-or-later
// The generator's front end: what the XML reader takes into the model, and every way in
// which it and the D-Bus checks refuse input, each with the file and line.
#include "checks.hpp"
#include "xml_reader.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace tarvek::codegen {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

Document read_and_check(std::string const& xml)
{
    auto document = read_xml(xml, "in.xml");
    check_document(document);
    return document;
}

// The message of the InputError that reading and checking `xml` raises.
std::string failure(std::string const& xml)
{
    try {
        read_and_check(xml);
    } catch (InputError const& e) {
        return e.what();
    }
    return "(no error)";
}

std::string interface(std::string const& body, std::string const& name = "org.example.Lamp")
{
    return "<node>\n<interface name=\"" + name + "\">\n" + body + "</interface>\n</node>\n";
}

TEST(XmlReader, ReadsMethodsSignalsPropertiesAndAnnotations)
{
    auto const d = read_and_check(interface(R"(<method name="Add">
  <arg name="a" type="i" direction="in"/>
  <arg name="b" type="i"/>
  <arg name="sum" type="i" direction="out"/>
  <annotation name="org.tarvek.Async" value="true"/>
</method>
<signal name="Blinked"><arg name="count" type="t"/></signal>
<property name="Level" type="u" access="readwrite"/>
<property name="Serial" type="s" access="read"/>
<property name="Secret" type="s" access="write"/>
)"));
    ASSERT_EQ(d.interfaces.size(), 1U);
    auto const& i = d.interfaces[0];
    EXPECT_EQ(i.name, "org.example.Lamp");
    EXPECT_EQ(i.where.line, 2U);
    ASSERT_EQ(i.methods.size(), 1U);
    ASSERT_EQ(i.methods[0].arguments.size(), 3U);
    EXPECT_EQ(i.methods[0].arguments[1].direction, Direction::in);
    EXPECT_EQ(i.methods[0].arguments[2].direction, Direction::out);
    EXPECT_EQ(i.methods[0].arguments[2].name, "sum");
    EXPECT_EQ(i.methods[0].annotations.at(0).value, "true");
    ASSERT_EQ(i.signals.size(), 1U);
    EXPECT_EQ(i.signals[0].arguments.at(0).direction, Direction::out);
    ASSERT_EQ(i.properties.size(), 3U);
    EXPECT_EQ(i.properties[0].access, Access::read_write);
    EXPECT_EQ(i.properties[1].access, Access::read);
    EXPECT_EQ(i.properties[2].access, Access::write);
    EXPECT_EQ(i.properties[2].where.line, 12U);
}

TEST(XmlReader, TakesASingleInterfaceElementAndInterfacesOfNestedNodes)
{
    EXPECT_EQ(read_and_check("<interface name=\"a.B\"/>").interfaces.size(), 1U);
    auto const d = read_and_check(
        R"(<node name="/"><interface name="a.B"/><node name="c"><interface name="a.C"/></node></node>)");
    ASSERT_EQ(d.interfaces.size(), 2U);
    EXPECT_EQ(d.interfaces[1].name, "a.C");
}

TEST(XmlReader, TakesTheCommentBeforeAnElementAsItsDoc)
{
    auto const d = read_and_check(R"(<node>
  <!-- ******************** -->
  <!--
      A lamp.
        Second line.
  -->
  <interface name="a.B">
    <!-- Ignored: something stands between it and the method. -->
    <property name="P" type="b" access="read"/>
    <method name="M"/>
  </interface>
</node>)");
    EXPECT_EQ(d.interfaces[0].doc, "A lamp.\nSecond line.");
    EXPECT_EQ(d.interfaces[0].methods[0].doc, "");
    EXPECT_EQ(d.interfaces[0].properties[0].doc, "Ignored: something stands between it and the method.");
}

TEST(XmlReader, FoldsDocElementsIntoParagraphsAndKeepsInlineMarkupInTheSentence)
{
    auto const d = read_and_check(R"(<node xmlns:doc="http://www.freedesktop.org/dbus/1.0/doc.dtd">
  <interface name="a.B">
    <method name="M">
      <doc:doc>
        <doc:description>
          <doc:para>Calls   <doc:tt>Other()</doc:tt>
            first.</doc:para>
          <doc:para>Then returns.</doc:para>
        </doc:description>
      </doc:doc>
    </method>
  </interface>
</node>)");
    EXPECT_EQ(d.interfaces[0].methods[0].doc, "Calls Other() first.\n\nThen returns.");
}

TEST(XmlReader, SkipsElementsAndAttributesOfOtherTools)
{
    auto const d = read_and_check(R"(<node xmlns:x="urn:x"><x:extra><anything/></x:extra>
<interface name="a.B" x:flag="1"><x:hint>text</x:hint><method name="M"/></interface></node>)");
    EXPECT_EQ(d.interfaces[0].methods.size(), 1U);
}

TEST(XmlReader, ResolvesEntitiesDeclaredInTheDocument)
{
    auto const d = read_and_check(R"(<!DOCTYPE node [ <!ENTITY NAME "a.B"> ]>
<node><interface name="&NAME;"/></node>)");
    EXPECT_EQ(d.interfaces[0].name, "a.B");
}

TEST(XmlReader, RefusesMalformedXmlWithItsLine)
{
    EXPECT_THAT(failure("<node>\n<interface name=\"a.B\">\n</node>\n"),
        StartsWith("in.xml:3: malformed XML: mismatched tag"));
}

TEST(XmlReader, RefusesAnEmptyDocument)
{
    EXPECT_THAT(failure(""), StartsWith("in.xml:1: malformed XML"));
}

TEST(XmlReader, RefusesAnUnknownElement)
{
    EXPECT_EQ(failure(interface("<method name=\"M\"/>\n<field name=\"F\"/>\n")),
        "in.xml:4: unknown element <field>");
}

TEST(XmlReader, RefusesAnElementInTheWrongPlace)
{
    EXPECT_EQ(failure(interface("<arg name=\"a\" type=\"s\"/>\n")),
        "in.xml:3: unexpected <arg> inside <interface>");
    EXPECT_EQ(failure("<method name=\"M\"/>"), "in.xml:1: unexpected <method> at the top");
    EXPECT_EQ(failure("<node><interface name=\"a.B\"><interface name=\"a.C\"/></interface></node>"),
        "in.xml:1: unexpected <interface> inside <interface>");
    EXPECT_EQ(
        failure(interface("<property name=\"P\" type=\"s\" access=\"read\"><arg type=\"s\"/></property>\n")),
        "in.xml:3: unexpected <arg> inside <property>");
}

TEST(XmlReader, RefusesAMissingAttribute)
{
    EXPECT_EQ(failure(interface("<property name=\"P\" access=\"read\"/>\n")),
        "in.xml:3: <property> has no \"type\" attribute");
    EXPECT_EQ(failure(interface("<method><arg type=\"s\"/></method>\n")),
        "in.xml:3: <method> has no \"name\" attribute");
    EXPECT_EQ(failure(interface("<method name=\"M\">\n<arg name=\"a\"/></method>\n")),
        "in.xml:4: <arg> has no \"type\" attribute");
    EXPECT_EQ(failure(interface("<annotation name=\"x.Y\"/>\n")),
        "in.xml:3: <annotation> has no \"value\" attribute");
}

TEST(XmlReader, RefusesAnUnknownAccess)
{
    EXPECT_EQ(failure(interface("<property name=\"P\" type=\"s\" access=\"readonly\"/>\n")),
        "in.xml:3: unknown access \"readonly\" of property P (read, write or readwrite)");
}

TEST(XmlReader, RefusesAnUnknownDirectionAndInputToASignal)
{
    EXPECT_EQ(failure(interface("<method name=\"M\"><arg type=\"s\" direction=\"both\"/></method>\n")),
        "in.xml:3: unknown direction \"both\" (in or out)");
    EXPECT_EQ(failure(interface("<signal name=\"S\"><arg type=\"s\" direction=\"in\"/></signal>\n")),
        "in.xml:3: a signal's argument has direction \"in\"; signal arguments only go out");
}

TEST(XmlReader, RefusesAnUnknownAttribute)
{
    EXPECT_EQ(failure(interface("<method name=\"M\" kind=\"fast\"/>\n")),
        "in.xml:3: unknown attribute \"kind\" on <method>");
}

TEST(XmlReader, RefusesTextWhereNoneBelongs)
{
    EXPECT_EQ(failure(interface("<method name=\"M\">\n  stray words\n</method>\n")),
        "in.xml:4: unexpected text \"stray words\" inside <method>");
}

TEST(XmlReader, RefusesAFileWithoutAnInterfaceOrNode)
{
    EXPECT_EQ(
        failure("<!-- nothing --><x:y xmlns:x=\"urn:x\"/>"), "in.xml:1: no <node> or <interface> element");
}

TEST(XmlReader, NamesAFileThatCannotBeOpened)
{
    try {
        read_xml_file("/nonexistent/in.xml");
        FAIL() << "no error";
    } catch (InputError const& e) {
        EXPECT_THAT(e.what(), StartsWith("/nonexistent/in.xml:0: cannot open"));
    }
}

TEST(Checks, RefuseABadInterfaceName)
{
    EXPECT_THAT(
        failure(interface("", "Lamp")), StartsWith("in.xml:2: \"Lamp\" is not a valid interface name"));
    EXPECT_THAT(
        failure(interface("", "org.2example.Lamp")), StartsWith("in.xml:2: \"org.2example.Lamp\" is not"));
    EXPECT_THAT(failure(interface("", "org..Lamp")), StartsWith("in.xml:2: \"org..Lamp\" is not"));
    EXPECT_THAT(
        failure(interface("", "org.ex-ample.Lamp")), StartsWith("in.xml:2: \"org.ex-ample.Lamp\" is not"));
    EXPECT_THAT(
        failure(interface("", "a." + std::string(260, 'b'))), HasSubstr("is not a valid interface name"));
}

TEST(Checks, RefuseABadMemberName)
{
    EXPECT_THAT(failure(interface("<method name=\"Get.All\"/>\n")),
        StartsWith("in.xml:3: \"Get.All\" is not a valid method name"));
    EXPECT_THAT(failure(interface("<signal name=\"1st\"/>\n")),
        StartsWith("in.xml:3: \"1st\" is not a valid signal name"));
    EXPECT_THAT(failure(interface("<property name=\"\" type=\"s\" access=\"read\"/>\n")),
        StartsWith("in.xml:3: \"\" is not a valid property name"));
}

TEST(Checks, RefuseABadSignatureWithWhatIsWrong)
{
    auto const property = [](std::string const& type) {
        return failure(interface("<property name=\"P\" type=\"" + type + "\" access=\"read\"/>\n"));
    };
    EXPECT_EQ(property("z"), "in.xml:3: property P has a bad type \"z\": unknown type code 'z'");
    EXPECT_EQ(
        property("ss"), "in.xml:3: property P has a bad type \"ss\": \"ss\" is more than one complete type");
    EXPECT_EQ(property("a"), "in.xml:3: property P has a bad type \"a\": a type is missing at the end");
    EXPECT_EQ(property("a{vs}"),
        "in.xml:3: property P has a bad type \"a{vs}\": a dictionary key must be a basic type");
    EXPECT_EQ(property("{ss}"),
        "in.xml:3: property P has a bad type \"{ss}\": a dictionary entry '{' may only stand inside an "
        "array");
    EXPECT_EQ(failure(interface("<method name=\"M\">\n<arg name=\"x\" type=\"(i\"/></method>\n")),
        "in.xml:4: argument x of method M has a bad type \"(i\": a struct is not closed with ')'");
}

TEST(Checks, RefuseAMemberDeclaredTwice)
{
    EXPECT_EQ(failure(interface("<method name=\"M\"/>\n<method name=\"M\"/>\n")),
        "in.xml:4: method M of org.example.Lamp is declared twice (first on line 3)");
    EXPECT_EQ(failure(interface("<property name=\"P\" type=\"s\" access=\"read\"/>\n<property name=\"P\" "
                                "type=\"u\" access=\"read\"/>\n")),
        "in.xml:4: property P of org.example.Lamp is declared twice (first on line 3)");
}

TEST(Checks, RefuseAnArgumentNamedTwice)
{
    EXPECT_EQ(failure(interface("<method name=\"M\">\n<arg name=\"a\" type=\"s\"/>\n<arg name=\"a\" "
                                "type=\"s\" direction=\"out\"/>\n</method>\n")),
        "in.xml:5: argument a of method M is named twice (first on line 4)");
}

TEST(Checks, RefuseAnInterfaceDeclaredTwice)
{
    std::vector<Document> documents{read_xml("<interface name=\"a.B\"/>", "one.xml"),
        read_xml("<node>\n<interface name=\"a.B\"/></node>", "two.xml")};
    try {
        check_distinct(documents);
        FAIL() << "no error";
    } catch (InputError const& e) {
        EXPECT_STREQ(e.what(), "two.xml:2: interface a.B is declared twice (first at one.xml:1)");
    }
}

TEST(Checks, RefuseAnUnknownValueOfAKnownAnnotation)
{
    EXPECT_EQ(failure(interface(
                  "<property name=\"P\" type=\"s\" access=\"read\">\n"
                  "<annotation name=\"org.freedesktop.DBus.Property.EmitsChangedSignal\" value=\"yes\"/>"
                  "</property>\n")),
        "in.xml:4: annotation org.freedesktop.DBus.Property.EmitsChangedSignal has the value \"yes\"; it "
        "takes "
        "one of true, invalidates, const, false");
    EXPECT_EQ(failure(interface(
                  "<method name=\"M\"><annotation name=\"org.tarvek.Async\" value=\"1\"/></method>\n")),
        "in.xml:3: annotation org.tarvek.Async has the value \"1\"; it takes one of true, false");
}

TEST(Checks, RefuseAnUnknownAnnotationOfOurOwn)
{
    EXPECT_EQ(failure(interface("<annotation name=\"org.tarvek.CppNmae\" value=\"x\"/>\n")),
        "in.xml:3: unknown annotation org.tarvek.CppNmae (ours are org.tarvek.CppName and org.tarvek.Async)");
}

TEST(Checks, RefuseAnAnnotationGivenTwice)
{
    EXPECT_EQ(failure(interface("<method name=\"M\">\n<annotation name=\"x.Y\" value=\"1\"/>\n<annotation "
                                "name=\"x.Y\" value=\"2\"/></method>\n")),
        "in.xml:5: annotation x.Y is given twice (first on line 4)");
}

TEST(Checks, LetOtherBindingsAnnotationsPass)
{
    EXPECT_NO_THROW(read_and_check(
        interface("<method name=\"M\"><annotation name=\"org.freedesktop.DBus.GLib.Async\" value=\"\"/>"
                  "<annotation name=\"org.gtk.GDBus.C.Name\" value=\"m\"/></method>\n")));
}

} // namespace
} // namespace tarvek::codegen
