// SPDX-License-Identifier: LGPL-2.1-or-later
// Storage documents on their own: building, looking up, changing, comparing, writing and
// reading, without a live object.
#include "document_text.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/storage/documents.hpp>
#include <tarvek/provider/storage/typed_value.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

namespace storage = tarvek::provider::storage;

using storage_test::text_of;

namespace {

template <class Operation>
std::string invalid_argument_of(Operation operation)
{
    try {
        operation();
    } catch (tarvek::invalid_argument const& e) {
        return e.what();
    }
    return "no error";
}

std::string written(storage::ConstObject const& document, bool keep_defaults)
{
    std::ostringstream out;
    document.write_json(out, keep_defaults);
    return out.str();
}

storage::Object read(std::string const& text)
{
    std::istringstream in(text);
    storage::Object document;
    in >> document;
    return document;
}

template <class Collection>
std::vector<std::string> names_of(Collection const& members)
{
    std::vector<std::string> names;
    for (auto const& member : members)
        names.push_back(member.name());
    return names;
}

// The example of the document format: one interface with a set and a defaulted property.
storage::Object lamp_document()
{
    return storage::Object("/lamp1",
        {storage::Interface(
            "org.sample.Lamp", {storage::make_property("Level", 3), storage::Property("Label")})});
}

constexpr char lamp_text[] = R"({
    "interfaces": {
        "org.sample.Lamp": {
            "properties": {
                "Level": 3,
                "Label": null
            }
        }
    },
    "path": "/lamp1"
})";

} // namespace

// ---- building ----

TEST(StorageObject, StartsWithEmptyInterfacesAndNoPath)
{
    storage::Object const document;
    EXPECT_EQ(text_of(document.json_value()), R"({"interfaces":{}})");
    EXPECT_EQ(document.path(), "");
}

TEST(StorageObject, AppendsThePathAfterTheInterfaces)
{
    storage::Object const document("/a");
    EXPECT_EQ(text_of(document.json_value()), R"({"interfaces":{},"path":"/a"})");
}

TEST(StorageObject, OverwritesThePathInPlace)
{
    storage::Object document("/a");
    document.set_path("/b");
    EXPECT_EQ(text_of(document.json_value()), R"({"interfaces":{},"path":"/b"})");
}

TEST(StorageObject, TakesAPathThatIsNoObjectPath)
{
    storage::Object const document("not a path");
    EXPECT_EQ(document.path(), "not a path");
}

TEST(StorageInterface, StartsWithEmptyProperties)
{
    storage::Interface const interface("org.sample.Lamp");
    EXPECT_EQ(text_of(interface.json_value()), R"({"properties":{}})");
    EXPECT_EQ(interface.name(), "org.sample.Lamp");
}

TEST(StorageProperty, StartsNull)
{
    storage::Property const property("Level");
    EXPECT_TRUE(property.is_null());
    EXPECT_TRUE(property.json_value().IsNull());
}

TEST(StorageProperty, IsNullAgainAfterClear)
{
    storage::Property property = storage::make_property("Level", 3);
    property.clear();
    EXPECT_TRUE(property.is_null());
}

TEST(StorageInterface, KeepsTheOrderInWhichPropertiesWereAdded)
{
    storage::Interface const interface("i",
        {storage::make_property("b", 1), storage::make_property("a", 2), storage::make_property("c", 3)});
    EXPECT_EQ(names_of(interface.properties()), (std::vector<std::string>{"b", "a", "c"}));
}

TEST(StorageInterface, AddingAnExistingNameReplacesItAndKeepsTheSize)
{
    storage::Interface interface("i", {storage::make_property("a", 1), storage::make_property("b", 2)});
    interface.add(storage::make_property("a", 5));
    EXPECT_EQ(interface.properties().size(), 2U);
    EXPECT_EQ(text_of(interface.json_value()), R"({"properties":{"b":2,"a":5}})");
}

TEST(StorageInterface, SetPropertiesLeavesUnlistedPropertiesAlone)
{
    storage::Interface interface("i", {storage::make_property("a", 1), storage::make_property("b", 2)});
    interface.set_properties({storage::make_property("b", 3), storage::make_property("c", 4)});
    EXPECT_EQ(text_of(interface.json_value()), R"({"properties":{"a":1,"b":3,"c":4}})");
}

TEST(StorageInterface, AddCopiesSoTheAddedPropertyStaysIndependent)
{
    storage::Property property = storage::make_property("a", 1);
    storage::Interface interface("i");
    interface.add(property);
    storage::set_value(property, 2);
    EXPECT_EQ(text_of(interface.json_value()), R"({"properties":{"a":1}})");
}

TEST(StorageInterface, ReAddingItsOwnPropertyKeepsTheValue)
{
    storage::Interface interface("i", {storage::make_property("a", 1), storage::make_property("b", 2)});
    interface.add(*interface.properties().try_find("a"));
    EXPECT_EQ(text_of(interface.json_value()), R"({"properties":{"b":2,"a":1}})");
}

TEST(StorageObject, AddingAnExistingInterfaceReplacesIt)
{
    storage::Object document(
        "/a", {storage::Interface("i", {storage::make_property("x", 1)}), storage::Interface("j")});
    document.add(storage::Interface("i", {storage::make_property("y", 2)}));
    EXPECT_EQ(document.interfaces().size(), 2U);
    EXPECT_EQ(text_of(document.json_value()),
        R"({"interfaces":{"j":{"properties":{}},"i":{"properties":{"y":2}}},"path":"/a"})");
}

// ---- lookup and views ----

TEST(MemberCollection, FindsNothingForAnUnknownName)
{
    EXPECT_FALSE(lamp_document().interfaces().try_find("org.sample.Other").has_value());
}

TEST(MemberCollection, IteratesInDocumentOrder)
{
    storage::Object document(
        "/a", {storage::Interface("z"), storage::Interface("a"), storage::Interface("m")});
    std::vector<std::string> names;
    for (storage::Interface const& interface : document.interfaces())
        names.push_back(interface.name());
    EXPECT_EQ(names, (std::vector<std::string>{"z", "a", "m"}));
}

TEST(MemberCollection, ViewsChangeTheParentDocument)
{
    storage::Object document = lamp_document();
    storage::Property level
        = *document.interfaces().try_find("org.sample.Lamp")->properties().try_find("Level");
    storage::set_value(level, 7);
    auto const seen = document.interfaces().try_find("org.sample.Lamp")->properties().try_find("Level");
    EXPECT_EQ(storage::get_value<std::int32_t>(*seen), 7);
}

TEST(MemberCollection, RemovingTheFirstOfThreeMovesTheLastIntoFirstPlace)
{
    storage::Interface interface("i",
        {storage::make_property("a", 1), storage::make_property("b", 2), storage::make_property("c", 3)});
    interface.remove("a");
    EXPECT_EQ(names_of(interface.properties()), (std::vector<std::string>{"c", "b"}));
}

TEST(MemberCollection, TryRemoveOfAnUnknownNameIsFalse)
{
    storage::Interface interface("i", {storage::make_property("a", 1)});
    EXPECT_FALSE(interface.properties().try_remove("b"));
    EXPECT_EQ(interface.properties().size(), 1U);
}

TEST(MemberCollection, RemovesOnlyTheFirstOfTwoMembersOfOneName)
{
    storage::Object document = read(R"({"interfaces":{"i":{"properties":{"a":1,"a":2}}}})");
    auto properties = document.interfaces().try_find("i")->properties();
    EXPECT_TRUE(properties.try_remove("a"));
    EXPECT_EQ(text_of(document.json_value()), R"({"interfaces":{"i":{"properties":{"a":2}}}})");
}

// ---- failures ----

TEST(StorageInterface, RemovingAnUnknownPropertyRaisesNoSuchMember)
{
    storage::Interface interface("i");
    EXPECT_EQ(invalid_argument_of([&] { interface.remove("Level"); }), "No such member: Level");
}

TEST(StorageObject, RemovingAnUnknownInterfaceRaisesNoSuchMember)
{
    storage::Object document("/a");
    EXPECT_EQ(
        invalid_argument_of([&] { document.remove("org.sample.Lamp"); }), "No such member: org.sample.Lamp");
}

TEST(StorageInterface, WithoutPropertiesMemberRaisesNoSuchMember)
{
    storage::Object const document = read(R"({"interfaces":{"i":{}}})");
    auto const interface = document.interfaces().try_find("i");
    ASSERT_TRUE(interface.has_value());
    EXPECT_EQ(invalid_argument_of([&] { interface->properties(); }), "No such member: properties");
}

TEST(StorageObject, WithoutInterfacesMemberRaisesNoSuchMember)
{
    storage::Object const document = read(R"({"path":"/a"})");
    EXPECT_EQ(invalid_argument_of([&] { document.interfaces(); }), "No such member: interfaces");
    EXPECT_EQ(document.path(), "/a");
}

TEST(StorageObject, AddingToInterfacesThatAreNoObjectIsReportedAndRefused)
{
    storage::Object document = read(R"({"interfaces":[]})");
    testing::internal::CaptureStderr();
    EXPECT_EQ(invalid_argument_of([&] { document.add(storage::Interface("i")); }), "Not a JSON object");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "RAPIDJSON_ASSERT(IsObject())\n");
}

TEST(StorageObject, SettingAPathOnANullRootIsReportedAndRefused)
{
    storage::Object document = read("");
    testing::internal::CaptureStderr();
    EXPECT_EQ(invalid_argument_of([&] { document.set_path("/a"); }), "Not a JSON object");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "RAPIDJSON_ASSERT(IsObject())\n");
}

TEST(StorageObject, APathThatIsNoStringIsReportedAndReadAsEmpty)
{
    storage::Object const document = read(R"({"interfaces":{},"path":5})");
    testing::internal::CaptureStderr();
    EXPECT_EQ(document.path(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "RAPIDJSON_ASSERT(IsString())\n");
}

// ---- comparison ----

TEST(StorageEquals, IgnoresTheOrderOfMembers)
{
    storage::Object const first("/a",
        {storage::Interface("i", {storage::make_property("x", 1), storage::make_property("y", 2)}),
            storage::Interface("j", {storage::Property("z")})});
    storage::Object const second("/a",
        {storage::Interface("j", {storage::Property("z")}),
            storage::Interface("i", {storage::make_property("y", 2), storage::make_property("x", 1)})});
    EXPECT_TRUE(first.equals(second));
    EXPECT_TRUE(second.equals(first));
}

TEST(StorageEquals, IsFalseWhenOneHasOneMoreProperty)
{
    storage::Object const first("/a", {storage::Interface("i", {storage::make_property("x", 1)})});
    storage::Object const second(
        "/a", {storage::Interface("i", {storage::make_property("x", 1), storage::make_property("y", 2)})});
    EXPECT_FALSE(first.equals(second));
    EXPECT_FALSE(second.equals(first));
}

TEST(StorageEquals, TellsANullPropertyFromAnAbsentOne)
{
    storage::Object const with_null("/a", {storage::Interface("i", {storage::Property("x")})});
    storage::Object const without("/a", {storage::Interface("i")});
    EXPECT_FALSE(with_null.equals(without));
}

TEST(StorageEquals, IsFalseForDifferentPaths)
{
    EXPECT_FALSE(storage::Object("/a").equals(storage::Object("/b")));
}

TEST(StorageEquals, IsFalseForDifferentValues)
{
    storage::Interface const first("i", {storage::make_property("x", 1)});
    storage::Interface const second("i", {storage::make_property("x", 2)});
    EXPECT_FALSE(first.equals(second));
}

TEST(StorageEquals, ComparesAnIntegerAndAnEqualDoubleAsEqual)
{
    EXPECT_TRUE(storage::make_property("x", 2).equals(storage::make_property("x", 2.0)));
}

TEST(StorageEquals, IgnoresUnknownMembers)
{
    storage::Object const extended
        = read(R"({"interfaces":{"i":{"properties":{},"note":1}},"path":"/a","version":2})");
    storage::Object const plain("/a", {storage::Interface("i")});
    EXPECT_TRUE(extended.equals(plain));
}

// ---- copies ----

TEST(StorageObject, CopyConstructionGivesAnIndependentDocument)
{
    storage::Object const source = lamp_document();
    storage::Object copy(source);
    copy.remove("org.sample.Lamp");
    EXPECT_EQ(source.interfaces().size(), 1U);
    EXPECT_EQ(copy.interfaces().size(), 0U);
}

TEST(StorageObject, CopyFromAConstObjectGivesAnIndependentDocument)
{
    storage::Object const source = lamp_document();
    storage::ConstObject const& view = source;
    storage::Object copy(view);
    copy.set_path("/other");
    EXPECT_EQ(source.path(), "/lamp1");
}

TEST(StorageObject, CopyAssignmentGivesAnIndependentDocument)
{
    storage::Object const source = lamp_document();
    storage::Object copy;
    copy = source;
    copy.set_path("/other");
    EXPECT_EQ(source.path(), "/lamp1");
    EXPECT_TRUE(copy.interfaces().try_find("org.sample.Lamp").has_value());
}

TEST(StorageConstObject, PlainCopySharesTheDocument)
{
    storage::Object source = lamp_document();
    storage::ConstObject const shared = source;
    source.set_path("/other");
    EXPECT_EQ(shared.path(), "/other");
}

// ---- writing ----

TEST(StorageWriteJson, WritesTheDocumentAsItStandsWithDefaultsKept)
{
    EXPECT_EQ(written(lamp_document(), true), lamp_text);
}

TEST(StorageWriteJson, LeavesOutNullPropertiesWithoutDefaults)
{
    EXPECT_EQ(written(lamp_document(), false), R"({
    "interfaces": {
        "org.sample.Lamp": {
            "properties": {
                "Level": 3
            }
        }
    },
    "path": "/lamp1"
})");
}

TEST(StorageWriteJson, LeavesOutAnInterfaceWhoseLastPropertyWasNull)
{
    storage::Object const document("/a",
        {storage::Interface("i", {storage::Property("x")}),
            storage::Interface("j", {storage::make_property("y", 1)})});
    EXPECT_EQ(written(document, false), R"({
    "interfaces": {
        "j": {
            "properties": {
                "y": 1
            }
        }
    },
    "path": "/a"
})");
}

TEST(StorageWriteJson, StrippingLeavesTheSourceAsItWas)
{
    storage::Object const document = lamp_document();
    written(document, false);
    EXPECT_EQ(written(document, true), lamp_text);
}

TEST(StorageWriteJson, StreamOperatorWritesWithoutDefaults)
{
    std::ostringstream out;
    out << lamp_document();
    EXPECT_EQ(out.str(), written(lamp_document(), false));
}

TEST(StorageWriteJson, StopsUnterminatedAtANotANumber)
{
    storage::Object const document("/a",
        {storage::Interface("i",
            {storage::make_property("x", std::numeric_limits<double>::quiet_NaN()),
                storage::make_property("y", 1)})});
    EXPECT_EQ(written(document, true), R"({
    "interfaces": {
        "i": {
            "properties": {
                "x": )");
}

TEST(StorageWriteJson, StopsUnterminatedAtAnInfinity)
{
    storage::Object const document("/a",
        {storage::Interface("i", {storage::make_property("x", std::numeric_limits<double>::infinity())})});
    std::string const text = written(document, false);
    EXPECT_TRUE(text.ends_with(R"("x": )")) << text;
}

TEST(StorageWriteJson, WritesAnUnsignedAboveTheSignedRangeExactly)
{
    storage::Object const document("/a",
        {storage::Interface("i", {storage::make_property("x", std::numeric_limits<std::uint64_t>::max())})});
    EXPECT_NE(written(document, false).find("\"x\": 18446744073709551615\n"), std::string::npos);
}

// ---- reading ----

TEST(StorageReadJson, ReadsWhatWasWritten)
{
    storage::Object const document = read(lamp_text);
    EXPECT_TRUE(document.equals(lamp_document()));
    EXPECT_EQ(text_of(document.json_value()), text_of(lamp_document().json_value()));
}

TEST(StorageReadJson, KeepsUnknownMembersAndWritesThemBack)
{
    storage::Object const document
        = read(R"({"interfaces":{"i":{"properties":{},"note":1}},"path":"/a","version":2})");
    EXPECT_EQ(text_of(document.json_value()),
        R"({"interfaces":{"i":{"properties":{},"note":1}},"path":"/a","version":2})");
}

TEST(StorageReadJson, AcceptsAnyWellFormedValueAsTheRoot)
{
    storage::Object const document = read("  [1, 2]\n");
    EXPECT_TRUE(document.json_value().IsArray());
}

TEST(StorageReadJson, AnEmptyStreamRaisesNothing)
{
    std::istringstream in("");
    storage::Object document("/a");
    EXPECT_NO_THROW(in >> document);
    EXPECT_TRUE(document.json_value().IsNull());
}

TEST(StorageReadJson, AfterAnEmptyStreamInterfacesRaisesAfterTheAssertionLine)
{
    storage::Object const document = read("");
    testing::internal::CaptureStderr();
    EXPECT_EQ(invalid_argument_of([&] { document.interfaces(); }), "No such member: interfaces");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "RAPIDJSON_ASSERT(IsObject())\n");
}

TEST(StorageReadJson, MalformedInputLeavesANullRootWithAnEmptyPath)
{
    storage::Object const document = read(R"({"interfaces": {}, "path": )");
    EXPECT_TRUE(document.json_value().IsNull());
    testing::internal::CaptureStderr();
    EXPECT_EQ(document.path(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "RAPIDJSON_ASSERT(IsObject())\n");
}

TEST(StorageReadJson, TextAfterTheValueIsMalformed)
{
    EXPECT_TRUE(read(R"({"interfaces": {}} x)").json_value().IsNull());
}

TEST(StorageReadJson, ReplacesTheDocumentButNotOtherHoldersOfTheOldOne)
{
    storage::Object document = lamp_document();
    storage::ConstObject const old = document;
    std::istringstream in(R"({"interfaces": {}, "path": "/new"})");
    in >> document;
    EXPECT_EQ(document.path(), "/new");
    EXPECT_EQ(old.path(), "/lamp1");
}

TEST(StorageReadJson, ReadsAnUnsignedAboveTheSignedRangeExactly)
{
    storage::Object const document
        = read(R"({"interfaces":{"i":{"properties":{"x":18446744073709551615}}}})");
    auto const property = document.interfaces().try_find("i")->properties().try_find("x");
    EXPECT_EQ(storage::get_value<std::uint64_t>(*property), std::numeric_limits<std::uint64_t>::max());
}
