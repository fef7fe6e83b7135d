// SPDX-License-Identifier: LGPL-2.1-or-later
// com.omno.ExtendedProperties on the bus: bulk reads, defaults, ranges, resets and the
// single-value Set, with the failures that each of them answers.
#include "bus/bus_fixture.hpp"

#include <map>

namespace tarvek::test {
namespace {

constexpr char const* lamp_path = "/org/sample/lamp";
constexpr char const* lamp = "org.sample.Lamp";
constexpr char const* extended = "com.omno.ExtendedProperties";

class Bare : public provider::Interface {
public:
    Bare()
        : Interface("org.sample.Bare")
    {
    }
};

// The dictionary of a GetMany or GetDefault reply, each value read as text for the
// signatures that the Lamp uses.
std::vector<std::pair<std::string, std::string>> read_values(sd_bus_message* reply)
{
    std::vector<std::pair<std::string, std::string>> entries;
    if (sd_bus_message_enter_container(reply, 'a', "{sv}") <= 0)
        throw std::runtime_error("no a{sv}");
    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
        char const* name = nullptr;
        sd_bus_message_read(reply, "s", &name);
        char type = 0;
        char const* contents = nullptr;
        sd_bus_message_peek_type(reply, &type, &contents);
        std::string value;
        sd_bus_message_enter_container(reply, 'v', contents);
        if (std::string(contents) == "u") {
            std::uint32_t u = 0;
            sd_bus_message_read(reply, "u", &u);
            value = std::to_string(u);
        } else if (std::string(contents) == "b") {
            int b = 0;
            sd_bus_message_read(reply, "b", &b);
            value = b ? "true" : "false";
        } else if (std::string(contents) == "s") {
            char const* s = nullptr;
            sd_bus_message_read(reply, "s", &s);
            value = s;
        }
        sd_bus_message_exit_container(reply);
        sd_bus_message_exit_container(reply);
        entries.emplace_back(name, value);
    }
    return entries;
}

// The dictionary of a GetRanges or GetAllRanges reply with unsigned values: each name with
// its entries.
std::vector<std::pair<std::string, std::vector<std::vector<std::uint32_t>>>> read_ranges(
    sd_bus_message* reply)
{
    std::vector<std::pair<std::string, std::vector<std::vector<std::uint32_t>>>> result;
    if (sd_bus_message_enter_container(reply, 'a', "{saav}") <= 0)
        throw std::runtime_error("no a{saav}");
    while (sd_bus_message_enter_container(reply, 'e', "saav") > 0) {
        char const* name = nullptr;
        sd_bus_message_read(reply, "s", &name);
        std::vector<std::vector<std::uint32_t>> entries;
        sd_bus_message_enter_container(reply, 'a', "av");
        while (sd_bus_message_enter_container(reply, 'a', "v") > 0) {
            std::vector<std::uint32_t> values;
            while (sd_bus_message_enter_container(reply, 'v', "u") > 0) {
                std::uint32_t u = 0;
                sd_bus_message_read(reply, "u", &u);
                values.push_back(u);
                sd_bus_message_exit_container(reply);
            }
            sd_bus_message_exit_container(reply);
            entries.push_back(values);
        }
        sd_bus_message_exit_container(reply);
        sd_bus_message_exit_container(reply);
        result.emplace_back(name, entries);
    }
    return result;
}

std::function<void(sd_bus_message*)> names(char const* interface, std::vector<char const*> list)
{
    return [interface, list](sd_bus_message* m) {
        sd_bus_message_append(m, "s", interface);
        sd_bus_message_open_container(m, 'a', "s");
        for (char const* name : list)
            sd_bus_message_append(m, "s", name);
        sd_bus_message_close_container(m);
    };
}

class ExtendedPropertiesTest : public BusTest {
protected:
    ExtendedPropertiesTest()
    {
        publish(lamp_path, [this](tarvek::Object& object) {
            lamp_object = &provider::add_interface<Lamp>(object);
            provider::add_interface<Bare>(object);
        });
        start();
    }

    Lamp* lamp_object = nullptr;
};

using Values = std::vector<std::pair<std::string, std::string>>;

TEST_F(ExtendedPropertiesTest, GetManyAnswersEveryNameInTheOrderOfTheRequest)
{
    lamp_object->level.set(8U);
    CallResult const result = call(lamp_path, extended, "GetMany", names(lamp, {"Level", "On", "Level"}));
    ASSERT_TRUE(result.ok()) << result.error_message;
    EXPECT_EQ(read_values(result.reply.get()), (Values{{"Level", "8"}, {"On", "false"}, {"Level", "8"}}));
}

TEST_F(ExtendedPropertiesTest, GetManyWithOneUnknownNameAnswersOnlyTheError)
{
    CallResult const result = call(lamp_path, extended, "GetMany", names(lamp, {"Level", "Nothing", "On"}));
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.UnknownProperty");
    EXPECT_EQ(result.error_message, "Interface: org.sample.Lamp has no property named Nothing");
}

TEST_F(ExtendedPropertiesTest, GetManyWithoutNamesAnswersFailed)
{
    CallResult const result = call(lamp_path, extended, "GetMany", names(lamp, {}));
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.Failed");
    EXPECT_EQ(result.error_message, "basic_string: construction from null is not valid");
}

TEST_F(ExtendedPropertiesTest, AnUnknownInterfaceAnswersUnknownInterface)
{
    for (char const* member : {"GetMany", "IsDefaulted", "GetDefault", "GetRanges", "Reset"}) {
        SCOPED_TRACE(member);
        CallResult const result = call(lamp_path, extended, member, names("org.sample.Nothing", {"Level"}));
        EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.UnknownInterface");
        EXPECT_EQ(result.error_message, "Object /org/sample/lamp: No such interface: org.sample.Nothing");
    }
}

TEST_F(ExtendedPropertiesTest, IsDefaultedTellsEachPropertyApart)
{
    lamp_object->level.set(5U);
    CallResult const result = call(lamp_path, extended, "IsDefaulted", names(lamp, {"Level", "On"}));
    ASSERT_TRUE(result.ok()) << result.error_message;
    sd_bus_message* reply = result.reply.get();
    std::map<std::string, bool> defaulted;
    ASSERT_GT(sd_bus_message_enter_container(reply, 'a', "{sb}"), 0);
    while (sd_bus_message_enter_container(reply, 'e', "sb") > 0) {
        char const* name = nullptr;
        int value = 0;
        sd_bus_message_read(reply, "sb", &name, &value);
        defaulted[name] = value;
        sd_bus_message_exit_container(reply);
    }
    EXPECT_EQ(defaulted, (std::map<std::string, bool>{{"Level", false}, {"On", true}}));
}

TEST_F(ExtendedPropertiesTest, IsDefaultedWithAnUnknownNameAnswersUnknownProperty)
{
    CallResult const result = call(lamp_path, extended, "IsDefaulted", names(lamp, {"On", "Nothing"}));
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.UnknownProperty");
}

TEST_F(ExtendedPropertiesTest, GetDefaultAnswersTheDefaultsNotTheLiveValues)
{
    lamp_object->level.set(5U);
    CallResult const result = call(lamp_path, extended, "GetDefault", names(lamp, {"Level", "Label"}));
    ASSERT_TRUE(result.ok()) << result.error_message;
    EXPECT_EQ(read_values(result.reply.get()), (Values{{"Level", "0"}, {"Label", "lamp"}}));
}

TEST_F(ExtendedPropertiesTest, GetRangesAnswersEachEntryWithItsValues)
{
    CallResult const result = call(lamp_path, extended, "GetRanges", names(lamp, {"Level", "On"}));
    ASSERT_TRUE(result.ok()) << result.error_message;
    using Ranges = std::vector<std::pair<std::string, std::vector<std::vector<std::uint32_t>>>>;
    EXPECT_EQ(read_ranges(result.reply.get()), (Ranges{{"Level", {{0, 100}, {5}}}, {"On", {}}}));
}

TEST_F(ExtendedPropertiesTest, GetAllRangesAnswersEveryProperty)
{
    CallResult const result = call(
        lamp_path, extended, "GetAllRanges", [](sd_bus_message* m) { sd_bus_message_append(m, "s", lamp); });
    ASSERT_TRUE(result.ok()) << result.error_message;
    using Ranges = std::vector<std::pair<std::string, std::vector<std::vector<std::uint32_t>>>>;
    EXPECT_EQ(
        read_ranges(result.reply.get()), (Ranges{{"On", {}}, {"Level", {{0, 100}, {5}}}, {"Label", {}}}));
}

TEST_F(ExtendedPropertiesTest, AnInterfaceWithoutMembersIsStillOnTheBus)
{
    CallResult const result = call(lamp_path, "org.freedesktop.DBus.Introspectable", "Introspect");
    ASSERT_TRUE(result.ok()) << result.error_message;
    char const* xml = nullptr;
    ASSERT_GT(sd_bus_message_read(result.reply.get(), "s", &xml), 0);
    EXPECT_NE(std::string(xml).find("<interface name=\"org.sample.Bare\">"), std::string::npos) << xml;
}

TEST_F(ExtendedPropertiesTest, GetAllRangesOfAnInterfaceWithoutPropertiesIsEmpty)
{
    CallResult const result = call(lamp_path, extended, "GetAllRanges",
        [](sd_bus_message* m) { sd_bus_message_append(m, "s", "org.sample.Bare"); });
    ASSERT_TRUE(result.ok()) << result.error_message;
    EXPECT_TRUE(read_ranges(result.reply.get()).empty());
}

TEST_F(ExtendedPropertiesTest, ResetRestoresTheDefaults)
{
    lamp_object->level.set(5U);
    lamp_object->on.set(true);
    CallResult const result = call(lamp_path, extended, "Reset", names(lamp, {"Level", "On"}));
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(lamp_object->level.get(), 0U);
    EXPECT_FALSE(lamp_object->on.get());
}

TEST_F(ExtendedPropertiesTest, ResetOfAReadOnlyPropertyAnswersPropertyReadOnly)
{
    lamp_object->level.set(5U);
    CallResult const result = call(lamp_path, extended, "Reset", names(lamp, {"Level", "Label"}));
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.PropertyReadOnly");
    EXPECT_EQ(result.error_message, "Property Label is readonly");
    EXPECT_EQ(lamp_object->level.get(), 5U);
}

TEST_F(ExtendedPropertiesTest, ResetOfAnUnknownPropertyAnswersUnknownProperty)
{
    CallResult const result = call(lamp_path, extended, "Reset", names(lamp, {"Nothing"}));
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.UnknownProperty");
}

TEST_F(ExtendedPropertiesTest, AnEmptyResetIsANoOp)
{
    lamp_object->level.set(5U);
    CallResult const result = call(lamp_path, extended, "Reset", names(lamp, {}));
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(lamp_object->level.get(), 5U);
    EXPECT_TRUE(server_errors().empty());
}

TEST_F(ExtendedPropertiesTest, AnEmptySetManyIsANoOp)
{
    lamp_object->level.set(5U);
    CallResult const result = call(lamp_path, extended, "SetMany",
        [](sd_bus_message* m) { sd_bus_message_append(m, "sa(sv)", lamp, 0); });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(lamp_object->level.get(), 5U);
    EXPECT_TRUE(server_errors().empty());
}

TEST_F(ExtendedPropertiesTest, SetWritesOneValue)
{
    CallResult const result = call(lamp_path, extended, "Set",
        [](sd_bus_message* m) { sd_bus_message_append(m, "ssv", lamp, "On", "b", 1); });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_TRUE(lamp_object->on.get());
}

TEST_F(ExtendedPropertiesTest, SetManyWithAnUnknownNameAnswersUnknownPropertyAndAppliesNothing)
{
    CallResult const result = call(lamp_path, extended, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp, 2, "On", "b", 1, "Nothing", "u", 1U);
    });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.UnknownProperty");
    EXPECT_FALSE(lamp_object->on.get());
}

} // namespace
} // namespace tarvek::test
