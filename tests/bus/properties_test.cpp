// SPDX-License-Identifier: LGPL-2.1-or-later
// Properties on the bus: introspection, Get, GetAll and Set of org.freedesktop.DBus.Properties,
// the atomic SetMany of com.omno.ExtendedProperties, and PropertiesChanged.
#include "bus/bus_fixture.hpp"

#include <algorithm>

namespace tarvek::test {
namespace {

constexpr char const* lamp_path = "/org/sample/lamp";
constexpr char const* lamp = "org.sample.Lamp";
constexpr char const* extended = "com.omno.ExtendedProperties";

std::uint32_t read_u(CallResult const& result)
{
    std::uint32_t value = 0;
    if (sd_bus_message_read_basic(result.reply.get(), 'u', &value) <= 0)
        throw std::runtime_error("no u in the reply");
    return value;
}

class PropertiesTest : public BusTest {
protected:
    PropertiesTest()
        : lamp_object(publish_lamp(lamp_path))
    {
        start();
    }

    CallResult set(char const* property, char const* signature, std::uint32_t value)
    {
        return call(lamp_path, "org.freedesktop.DBus.Properties", "Set",
            [&](sd_bus_message* m) { sd_bus_message_append(m, "ssv", lamp, property, signature, value); });
    }

    Lamp& lamp_object;
};

TEST_F(PropertiesTest, IntrospectionShowsTheInterfaceWithItsMembers)
{
    CallResult const result = call(lamp_path, "org.freedesktop.DBus.Introspectable", "Introspect");
    ASSERT_TRUE(result.ok()) << result.error_message;
    char const* xml = nullptr;
    ASSERT_GT(sd_bus_message_read(result.reply.get(), "s", &xml), 0);
    std::string const text(xml);
    EXPECT_NE(text.find("<interface name=\"org.sample.Lamp\">"), std::string::npos) << text;
    EXPECT_NE(text.find("<property name=\"Level\" type=\"u\" access=\"readwrite\">"), std::string::npos)
        << text;
    EXPECT_NE(text.find("<property name=\"Label\" type=\"s\" access=\"read\">"), std::string::npos) << text;
    EXPECT_NE(text.find("<method name=\"Toggle\">"), std::string::npos) << text;
    EXPECT_NE(text.find("<signal name=\"Blinked\">"), std::string::npos) << text;
    EXPECT_NE(text.find("<interface name=\"com.omno.ExtendedProperties\">"), std::string::npos) << text;
    EXPECT_NE(text.find("<method name=\"GetAllRanges\">"), std::string::npos) << text;
    // Every property announces that its changes carry values.
    EXPECT_EQ(text.find("EmitsChangedSignal\" value=\"invalidates"), std::string::npos) << text;
}

TEST_F(PropertiesTest, GetReadsTheLiveValue)
{
    CallResult const result = get(lamp_path, lamp, "Level", "u");
    ASSERT_TRUE(result.ok()) << result.error_message;
    EXPECT_EQ(read_u(result), 0U);
}

TEST_F(PropertiesTest, GetReadsAReadOnlyPropertyToo)
{
    CallResult const result = get(lamp_path, lamp, "Label", "s");
    ASSERT_TRUE(result.ok()) << result.error_message;
    char const* text = nullptr;
    ASSERT_GT(sd_bus_message_read_basic(result.reply.get(), 's', &text), 0);
    EXPECT_STREQ(text, "lamp");
}

TEST_F(PropertiesTest, GetAllReadsEveryProperty)
{
    CallResult const result = call(lamp_path, "org.freedesktop.DBus.Properties", "GetAll",
        [](sd_bus_message* m) { sd_bus_message_append(m, "s", lamp); });
    ASSERT_TRUE(result.ok()) << result.error_message;
    std::vector<std::string> names;
    sd_bus_message* reply = result.reply.get();
    ASSERT_GT(sd_bus_message_enter_container(reply, 'a', "{sv}"), 0);
    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
        char const* name = nullptr;
        sd_bus_message_read(reply, "s", &name);
        names.emplace_back(name);
        sd_bus_message_skip(reply, "v");
        sd_bus_message_exit_container(reply);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"On", "Level", "Label"}));
}

TEST_F(PropertiesTest, SetWritesTheValueThroughTheObjectsExecutor)
{
    CallResult const result = set("Level", "u", 42);
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(lamp_object.level.get(), 42U);
    CallResult const read = get(lamp_path, lamp, "Level", "u");
    ASSERT_TRUE(read.ok());
    EXPECT_EQ(read_u(read), 42U);
}

TEST_F(PropertiesTest, SetOfAReadOnlyPropertyAnswersPropertyReadOnly)
{
    CallResult const result = call(lamp_path, "org.freedesktop.DBus.Properties", "Set",
        [](sd_bus_message* m) { sd_bus_message_append(m, "ssv", lamp, "Label", "s", "other"); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.PropertyReadOnly");
    EXPECT_EQ(result.error_message, "Property Label is readonly");
    EXPECT_EQ(lamp_object.label.get(), "lamp");
}

TEST_F(PropertiesTest, SetWithAValueOfAnotherTypeAnswersInvalidSignature)
{
    CallResult const result = call(lamp_path, "org.freedesktop.DBus.Properties", "Set",
        [](sd_bus_message* m) { sd_bus_message_append(m, "ssv", lamp, "Level", "s", "high"); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.InvalidSignature");
    EXPECT_EQ(result.error_message, "Property type mismatch");
    EXPECT_EQ(lamp_object.level.get(), 0U);
}

TEST_F(PropertiesTest, SetThatValidationRefusesAnswersInvalidArgs)
{
    CallResult const result = set("Level", "u", 101);
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(result.error_message, "org.sample.Lamp: Property validation failure");
    EXPECT_EQ(lamp_object.level.get(), 0U);
}

TEST_F(PropertiesTest, SetOfAnUnknownPropertyAnswersUnknownProperty)
{
    CallResult const result = set("Brightness", "u", 1);
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.UnknownProperty");
    EXPECT_EQ(result.error_message, "Interface: org.sample.Lamp has no property named Brightness");
}

TEST_F(PropertiesTest, SetOnAnUnknownInterfaceAnswersUnknownInterface)
{
    CallResult const result = call(lamp_path, "org.freedesktop.DBus.Properties", "Set",
        [](sd_bus_message* m) { sd_bus_message_append(m, "ssv", "org.sample.Nothing", "Level", "u", 1U); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.UnknownInterface");
    EXPECT_EQ(result.error_message, "Object /org/sample/lamp: No such interface: org.sample.Nothing");
}

TEST_F(PropertiesTest, SetWithAnotherSignatureAnswersInvalidArgs)
{
    CallResult const result = call(lamp_path, "org.freedesktop.DBus.Properties", "Set",
        [](sd_bus_message* m) { sd_bus_message_append(m, "s", lamp); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(result.error_message,
        "Invalid arguments 's' to call org.freedesktop.DBus.Properties.Set(), expecting 'ssv'.");
    // The server is still serving.
    EXPECT_TRUE(get(lamp_path, lamp, "Level", "u").ok());
}

TEST_F(PropertiesTest, SetWithAValueThatIsNoVariantAnswersPropertyTypeMismatch)
{
    std::vector<std::pair<char const*, std::function<void(sd_bus_message*)>>> const frames = {
        {"ssu", [](sd_bus_message* m) { sd_bus_message_append(m, "ssu", lamp, "Level", 7U); }},
        {"sss", [](sd_bus_message* m) { sd_bus_message_append(m, "sss", lamp, "Level", "7"); }},
        {"ssas", [](sd_bus_message* m) { sd_bus_message_append(m, "ssas", lamp, "Level", 1, "7"); }},
        {"ss(uu)", [](sd_bus_message* m) { sd_bus_message_append(m, "ss(uu)", lamp, "Level", 7U, 8U); }},
    };
    for (auto const& [signature, fill] : frames) {
        SCOPED_TRACE(signature);
        CallResult const result = call(lamp_path, "org.freedesktop.DBus.Properties", "Set", fill);
        EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.InvalidSignature");
        EXPECT_EQ(result.error_message, "Property type mismatch");
    }
    CallResult const read = get(lamp_path, lamp, "Level", "u");
    ASSERT_TRUE(read.ok()) << read.error_message;
    std::uint32_t level = 1;
    sd_bus_message_read(read.reply.get(), "u", &level);
    EXPECT_EQ(level, 0U);
}

TEST_F(PropertiesTest, SetWithoutAValueOrWithAFurtherArgumentStillAnswersInvalidArgs)
{
    CallResult const bare = call(lamp_path, "org.freedesktop.DBus.Properties", "Set",
        [](sd_bus_message* m) { sd_bus_message_append(m, "ss", lamp, "Level"); });
    EXPECT_EQ(bare.error_name, "org.freedesktop.DBus.Error.InvalidArgs");
    CallResult const longer = call(lamp_path, "org.freedesktop.DBus.Properties", "Set",
        [](sd_bus_message* m) { sd_bus_message_append(m, "ssuu", lamp, "Level", 7U, 8U); });
    EXPECT_EQ(longer.error_name, "org.freedesktop.DBus.Error.InvalidArgs");
    CallResult const empty = call(lamp_path, "org.freedesktop.DBus.Properties", "Set", {});
    EXPECT_EQ(empty.error_name, "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(PropertiesTest, SetManyAppliesAllValues)
{
    CallResult const result = call(lamp_path, extended, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp, 2, "On", "b", 1, "Level", "u", 30U);
    });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_TRUE(lamp_object.on.get());
    EXPECT_EQ(lamp_object.level.get(), 30U);
}

TEST_F(PropertiesTest, SetManyWithOneValueOfAnotherTypeAppliesNothing)
{
    CallResult const result = call(lamp_path, extended, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp, 2, "On", "b", 1, "Level", "s", "high");
    });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.InvalidSignature");
    EXPECT_EQ(result.error_message, "Property type mismatch");
    EXPECT_FALSE(lamp_object.on.get());
    EXPECT_EQ(lamp_object.level.get(), 0U);
}

TEST_F(PropertiesTest, SetManyThatValidationRefusesAppliesNothing)
{
    CallResult const result = call(lamp_path, extended, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp, 2, "On", "b", 1, "Level", "u", 500U);
    });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_FALSE(lamp_object.on.get());
    EXPECT_EQ(lamp_object.level.get(), 0U);
}

TEST_F(PropertiesTest, SetManyNamingAPropertyTwiceKeepsTheLaterValue)
{
    CallResult const result = call(lamp_path, extended, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp, 2, "Level", "u", 10U, "Level", "u", 20U);
    });
    ASSERT_TRUE(result.ok()) << result.error_message;
    EXPECT_EQ(lamp_object.level.get(), 20U);
}

TEST_F(PropertiesTest, SetManyWithAReadOnlyPropertyAnswersPropertyReadOnly)
{
    CallResult const result = call(lamp_path, extended, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp, 2, "Level", "u", 10U, "Label", "s", "x");
    });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.PropertyReadOnly");
    EXPECT_EQ(result.error_message, "Property Label is readonly");
    EXPECT_EQ(lamp_object.level.get(), 0U);
}

TEST_F(PropertiesTest, OneBatchEmitsOnePropertiesChangedWithEveryChangedName)
{
    watch("org.freedesktop.DBus.Properties", "PropertiesChanged");
    CallResult const result = call(lamp_path, extended, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp, 2, "On", "b", 1, "Level", "u", 30U);
    });
    ASSERT_TRUE(result.ok()) << result.error_message;
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    // Time for a second signal, if one were coming.
    pump_until([] { return false; }, std::chrono::milliseconds(300));
    ASSERT_EQ(signals.size(), 1U);
    EXPECT_STREQ(sd_bus_message_get_path(signals.front().get()), lamp_path);
    EXPECT_EQ(changed_names(signals.front().get()), (std::vector<std::string>{"On", "Level"}));
}

TEST_F(PropertiesTest, AChangeMadeByTheApplicationReachesTheBus)
{
    watch("org.freedesktop.DBus.Properties", "PropertiesChanged");
    lamp_object.level.set(12U);
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    EXPECT_EQ(changed_names(signals.front().get()), (std::vector<std::string>{"Level"}));
}

TEST_F(PropertiesTest, AnUnchangedValueEmitsNoSignal)
{
    watch("org.freedesktop.DBus.Properties", "PropertiesChanged");
    CallResult const result = set("Level", "u", 0);
    ASSERT_TRUE(result.ok()) << result.error_message;
    EXPECT_FALSE(pump_until([&] { return !signals.empty(); }, std::chrono::milliseconds(300)));
}

} // namespace
} // namespace tarvek::test
