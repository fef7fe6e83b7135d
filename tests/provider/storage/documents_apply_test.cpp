// SPDX-License-Identifier: LGPL-2.1-or-later
// Storage documents against live objects: capture, apply, and the round trip of every
// value type through the JSON text.
#include "document_text.hpp"
#include "live_objects.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/storage/documents.hpp>
#include <tarvek/provider/storage/typed_value.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <sstream>
#include <string>

namespace storage = tarvek::provider::storage;

using storage_test::LiveObject;
using storage_test::same_values;
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

// A stored Lamp interface of the given properties.
storage::Object lamp_document(std::string const& path, std::initializer_list<storage::Property> properties)
{
    return storage::Object(path, {storage::Interface("org.sample.Lamp", properties)});
}

} // namespace

// ---- capture ----

TEST(StorageCapture, StoresAPropertyAtItsDefaultAsNull)
{
    LiveObject live("/lamp1");
    live.lamp.level.set(3);
    storage::Interface const captured(live.lamp);
    EXPECT_EQ(text_of(captured.json_value()), R"({"properties":{"Level":3,"Label":null}})");
}

TEST(StorageCapture, TakesThePathAndEveryInterfaceInObjectOrder)
{
    LiveObject live("/lamp1");
    storage::Object const captured(live.object);
    EXPECT_EQ(captured.path(), "/lamp1");
    std::vector<std::string> names;
    for (storage::ConstInterface const& interface : captured.interfaces())
        names.push_back(interface.name());
    EXPECT_EQ(names, (std::vector<std::string>{"org.sample.Everything", "org.sample.Lamp"}));
}

TEST(StorageCapture, GivesAnUnregisteredObjectAnEmptyPath)
{
    tarvek::Object object;
    tarvek::provider::add_interface<storage_test::Lamp>(object);
    storage::Object const captured(object);
    EXPECT_EQ(text_of(captured.json_value()),
        R"({"interfaces":{"org.sample.Lamp":{"properties":{"Level":null,"Label":null}}},"path":""})");
}

TEST(StorageCapture, CapturesASingleLiveProperty)
{
    LiveObject live("/lamp1");
    live.lamp.label.set("hall");
    auto const properties = live.lamp.get_properties();
    storage::Property const label((*properties)[live.lamp.label.index()]);
    EXPECT_EQ(label.name(), "Label");
    EXPECT_EQ(storage::get_value<std::string>(label), "hall");
}

TEST(StorageCapture, KeepsADefaultedPropertyAsNullWhenWrittenWithDefaults)
{
    LiveObject live("/lamp1");
    std::string const text = written(storage::Object(live.object), true);
    EXPECT_NE(text.find(R"("Level": null)"), std::string::npos) << text;
}

TEST(StorageCapture, DropsADefaultedPropertyAndItsEmptiedInterfaceWithoutDefaults)
{
    LiveObject live("/lamp1");
    live.everything.int32.set(5);
    EXPECT_EQ(written(storage::Object(live.object), false), R"({
    "interfaces": {
        "org.sample.Everything": {
            "properties": {
                "Int32": 5
            }
        }
    },
    "path": "/lamp1"
})");
}

TEST(StorageCapture, WritesAnObjectEntirelyAtItsDefaultsWithEmptyInterfaces)
{
    LiveObject live("/lamp1");
    EXPECT_EQ(written(storage::Object(live.object), false),
        "{\n    \"interfaces\": {},\n    \"path\": \"/lamp1\"\n}");
}

// ---- apply ----

TEST(StorageApply, SetsTheStoredValues)
{
    LiveObject live("/lamp1");
    lamp_document(
        "/lamp1", {storage::make_property("Level", 42), storage::make_property("Label", std::string("hall"))})
        .apply(live.object);
    EXPECT_EQ(live.lamp.level.get(), 42);
    EXPECT_EQ(live.lamp.label.get(), "hall");
}

TEST(StorageApply, ChangesTheWholeInterfaceInOneCommit)
{
    LiveObject live("/lamp1");
    lamp_document(
        "/lamp1", {storage::make_property("Level", 42), storage::make_property("Label", std::string("hall"))})
        .apply(live.object);
    EXPECT_EQ(live.lamp.commits, 1U);
    EXPECT_EQ(live.lamp.last_changed, 2U);
}

TEST(StorageApply, ResetsAPropertyThatIsStoredAsNull)
{
    LiveObject live("/lamp1");
    live.lamp.level.set(42);
    lamp_document("/lamp1", {storage::Property("Level")}).apply(live.object);
    EXPECT_EQ(live.lamp.level.get(), 0);
}

TEST(StorageApply, LeavesAPropertyThatTheStrippedDocumentLacks)
{
    LiveObject source("/lamp1");
    LiveObject target("/lamp1");
    target.lamp.level.set(42);
    read(written(storage::Object(source.object), false)).apply(target.object);
    EXPECT_EQ(target.lamp.level.get(), 42);
}

TEST(StorageApply, ResetsAPropertyThatTheFullDocumentHoldsAsNull)
{
    LiveObject source("/lamp1");
    LiveObject target("/lamp1");
    target.lamp.level.set(42);
    read(written(storage::Object(source.object), true)).apply(target.object);
    EXPECT_EQ(target.lamp.level.get(), 0);
}

TEST(StorageApply, IgnoresAnInterfaceAndAPropertyThatTheLiveObjectLacks)
{
    LiveObject live("/lamp1");
    storage::Object const document("/lamp1",
        {storage::Interface("org.sample.Missing", {storage::make_property("X", 1)}),
            storage::Interface("org.sample.Lamp",
                {storage::make_property("Missing", 1), storage::make_property("Level", 9)})});
    EXPECT_NO_THROW(document.apply(live.object));
    EXPECT_EQ(live.lamp.level.get(), 9);
}

TEST(StorageApply, RaisesPathDiffersForAnotherPathBeforeChangingAnything)
{
    LiveObject live("/lamp1");
    storage::Object const document = lamp_document("/lamp2", {storage::make_property("Level", 9)});
    EXPECT_EQ(invalid_argument_of([&] { document.apply(live.object); }), "Path differs: /lamp1 != /lamp2");
    EXPECT_EQ(live.lamp.level.get(), 0);
}

TEST(StorageApply, RaisesPathDiffersWithAnEmptyRightSideWhenThePathIsMissing)
{
    LiveObject live("/lamp1");
    storage::Object const document;
    EXPECT_EQ(invalid_argument_of([&] { document.apply(live.object); }), "Path differs: /lamp1 != ");
}

TEST(StorageApply, ARefusalByValidationLeavesTheInterfaceUnchanged)
{
    LiveObject live("/lamp1");
    live.lamp.label.set("hall");
    auto const document = lamp_document("/lamp1",
        {storage::make_property("Label", std::string("porch")), storage::make_property("Level", 200)});
    EXPECT_THROW(document.apply(live.object), tarvek::validation_failed);
    EXPECT_EQ(live.lamp.level.get(), 0);
    EXPECT_EQ(live.lamp.label.get(), "hall");
}

TEST(StorageApply, AFailingInterfaceLeavesTheEarlierOnesChanged)
{
    LiveObject live("/lamp1");
    storage::Object const document("/lamp1",
        {storage::Interface("org.sample.Lamp", {storage::make_property("Level", 200)}),
            storage::Interface("org.sample.Everything", {storage::make_property("Int32", 5)})});
    EXPECT_THROW(document.apply(live.object), tarvek::validation_failed);
    EXPECT_EQ(live.everything.int32.get(), 5);
    EXPECT_EQ(live.lamp.level.get(), 0);
}

TEST(StorageApply, AValueThatDoesNotFitRaisesWhatThePropertyRaisesAndChangesNothing)
{
    LiveObject live("/lamp1");
    storage::Object const document("/lamp1",
        {storage::Interface("org.sample.Everything",
            {storage::make_property("Int32", 5), storage::make_property("Uint16", 70000)})});
    try {
        document.apply(live.object);
        FAIL() << "no error";
    } catch (tarvek::deserialize_error const& e) {
        EXPECT_STREQ(e.what(), "Integer value out of range");
    }
    EXPECT_EQ(live.everything.int32.get(), 0);
}

TEST(StorageApply, AnInvalidStoredPathRaisesAndChangesNothing)
{
    LiveObject live("/lamp1");
    storage::Object const document("/lamp1",
        {storage::Interface("org.sample.Everything",
            {storage::make_property("Int32", 5), storage::make_property("Path", std::string("a/b"))})});
    EXPECT_EQ(invalid_argument_of([&] { document.apply(live.object); }), "String is not a valid ObjectPath");
    EXPECT_EQ(live.everything.int32.get(), 0);
}

TEST(StorageApply, AppliesOneInterfaceToALiveImplementation)
{
    LiveObject live("/lamp1");
    storage::Interface const stored("org.sample.Lamp", {storage::make_property("Level", 12)});
    stored.apply(live.lamp);
    EXPECT_EQ(live.lamp.level.get(), 12);
}

// ---- round trips ----

class StorageRoundTrip : public testing::Test {
protected:
    StorageRoundTrip()
    {
        source.everything.set_all();
        source.lamp.level.set(17);
    }

    // Captures the source, writes it, and reads the text into a fresh document.
    storage::Object through_text(bool keep_defaults) const
    {
        return read(written(storage::Object(source.object), keep_defaults));
    }

    LiveObject source{"/sample"};
    LiveObject target{"/sample"};
};

TEST_F(StorageRoundTrip, ReadsBackADocumentEqualToTheCapturedOne)
{
    storage::Object const captured(source.object);
    EXPECT_TRUE(through_text(true).equals(captured));
}

TEST_F(StorageRoundTrip, StrippedDocumentIsNotEqualToTheCapturedOne)
{
    EXPECT_FALSE(through_text(false).equals(storage::Object(source.object)));
}

TEST_F(StorageRoundTrip, GivesEveryTypeItsValueWithDefaultsKept)
{
    target.lamp.label.set("changed");
    ASSERT_FALSE(same_values(source.everything, target.everything));
    through_text(true).apply(target.object);
    EXPECT_TRUE(same_values(source.everything, target.everything));
    EXPECT_TRUE(same_values(source.lamp, target.lamp));
}

TEST_F(StorageRoundTrip, GivesEveryTypeItsValueWithDefaultsStripped)
{
    ASSERT_FALSE(same_values(source.everything, target.everything));
    through_text(false).apply(target.object);
    EXPECT_TRUE(same_values(source.everything, target.everything));
    EXPECT_TRUE(same_values(source.lamp, target.lamp));
}

TEST_F(StorageRoundTrip, KeepsTheLargestUnsignedValuesExactly)
{
    through_text(false).apply(target.object);
    EXPECT_EQ(target.everything.uint64.get(), std::numeric_limits<std::uint64_t>::max() - 1);
    EXPECT_EQ(target.everything.int64.get(), std::numeric_limits<std::int64_t>::min());
}

TEST_F(StorageRoundTrip, StoresEachTypeInItsDocumentForm)
{
    storage::Object const captured(source.object);
    auto const everything = captured.interfaces().try_find("org.sample.Everything");
    ASSERT_TRUE(everything.has_value());
    EXPECT_EQ(text_of(everything->json_value()),
        R"({"properties":{"Flag":true,"Byte":255,"Int16":-32768,"Uint16":65535,"Int32":-2147483648,)"
        R"("Uint32":4294967295,"Int64":-9223372036854775808,"Uint64":18446744073709551614,"Real":0.1,)"
        R"("Text":"caf)"
        "\xc3\xa9"
        R"( \"quoted\"","Path":"/org/sample/thing","List":[3,-1,4],"Dict":{"one":1,"two":2},)"
        R"("Pair":[7,"seven"],"Color":[0.25,0.5,1.0]}})");
}
