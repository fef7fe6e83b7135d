// SPDX-License-Identifier: LGPL-2.1-or-later
// Per-property change behaviour and enforced ranges on the bus: what PropertiesChanged
// carries for each kind of property, the EmitsChangedSignal annotations of introspection
// data (read by sd-bus and by gdbus), the refusal of writes to constant properties, and
// writes outside enforced ranges.
#include "bus/bus_fixture.hpp"

#include <cstdio>
#include <string>

namespace tarvek::test {
namespace {

char const* const gauge_path = "/org/sample/gauge";
char const* const gauge_interface = "org.sample.Gauge";
char const* const properties = "org.freedesktop.DBus.Properties";
char const* const extended = "com.omno.ExtendedProperties";

class Gauge : public provider::Interface {
public:
    Gauge() : Interface(gauge_interface) {}

    Property<std::uint32_t> level{*this, "Level", 0};
    Property<std::uint64_t> counter{*this, "Counter", 0, Access::read_write, {}, Change::invalidates};
    Property<std::string> note{*this, "Note", "", Access::read_write, Change::none};
    Property<std::string> serial{*this, "Serial", "S-1", Access::read_write, Change::constant};
    Property<std::uint32_t> percent{*this, "Percent", 50, Access::read_write, {{0U, 100U}}, RangeCheck::enforced};
    Property<std::uint32_t> hint{*this, "Hint", 50, Access::read_write, {{0U, 100U}}};
};

// The three arguments of a PropertiesChanged signal.
struct Announcement {
    std::string interface;
    std::vector<std::string> changed;
    std::vector<std::string> invalidated;
};

Announcement read_announcement(sd_bus_message* signal)
{
    Announcement result;
    result.changed = changed_names(signal);
    sd_bus_message_rewind(signal, 1);
    char const* interface = nullptr;
    sd_bus_message_read(signal, "s", &interface);
    result.interface = interface ? interface : "";
    sd_bus_message_skip(signal, "a{sv}");
    sd_bus_message_enter_container(signal, 'a', "s");
    char const* name = nullptr;
    while (sd_bus_message_read(signal, "s", &name) > 0)
        result.invalidated.emplace_back(name);
    sd_bus_message_exit_container(signal);
    return result;
}

// The value of the EmitsChangedSignal annotation of a property in introspection XML as
// sd-bus writes it; empty when the property has none, "(no property)" when it is missing.
std::string annotation_of(std::string const& xml, std::string const& property)
{
    std::size_t const start = xml.find("<property name=\"" + property + "\"");
    if (start == std::string::npos)
        return "(no property)";
    std::size_t const open_end = xml.find('>', start);
    if (xml[open_end - 1] == '/')
        return "";
    std::size_t const end = xml.find("</property>", open_end);
    std::string const body = xml.substr(open_end, end - open_end);
    std::string const key = "name=\"org.freedesktop.DBus.Property.EmitsChangedSignal\" value=\"";
    std::size_t const at = body.find(key);
    if (at == std::string::npos)
        return "";
    std::size_t const value = at + key.size();
    return body.substr(value, body.find('"', value) - value);
}

class PropertyChangeTest : public BusTest {
protected:
    PropertyChangeTest()
    {
        publish(gauge_path, [&](tarvek::Object& object) { gauge = &provider::add_interface<Gauge>(object); });
        start();
    }

    CallResult set(char const* property, char const* signature, auto value)
    {
        return call(gauge_path, properties, "Set", [&](sd_bus_message* m) {
            sd_bus_message_append(m, "ssv", gauge_interface, property, signature, value);
        });
    }
    std::uint32_t read_u(char const* property)
    {
        CallResult const result = get(gauge_path, gauge_interface, property, "u");
        std::uint32_t value = 0;
        if (!result.ok() || sd_bus_message_read(result.reply.get(), "u", &value) < 0)
            ADD_FAILURE() << "no value of " << property << ": " << result.error_message;
        return value;
    }
    std::string introspect()
    {
        CallResult const result = call(gauge_path, "org.freedesktop.DBus.Introspectable", "Introspect");
        char const* xml = nullptr;
        if (!result.ok() || sd_bus_message_read(result.reply.get(), "s", &xml) < 0)
            return "(no answer: " + result.error_message + ")";
        return xml;
    }

    Gauge* gauge = nullptr;
};

TEST_F(PropertyChangeTest, OneBatchAnnouncesEachPropertyAsItsBehaviourSays)
{
    watch(properties, "PropertiesChanged");
    CallResult const batch = call(gauge_path, extended, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(
            m, "sa(sv)", gauge_interface, 3, "Level", "u", 7U, "Counter", "t", UINT64_C(9), "Note", "s", "hello");
    });
    ASSERT_TRUE(batch.ok()) << batch.error_name << ": " << batch.error_message;
    // A later change of Level alone marks the end: whatever the batch caused has arrived
    // before its signal.
    ASSERT_TRUE(set("Level", "u", 8U).ok());
    ASSERT_TRUE(pump_until([&] { return signals.size() >= 2; }));

    ASSERT_EQ(signals.size(), 2U);
    Announcement const first = read_announcement(signals.front().get());
    EXPECT_EQ(first.interface, gauge_interface);
    EXPECT_EQ(first.changed, std::vector<std::string>{"Level"});
    EXPECT_EQ(first.invalidated, std::vector<std::string>{"Counter"});
    Announcement const second = read_announcement(signals.back().get());
    EXPECT_EQ(second.changed, std::vector<std::string>{"Level"});
    EXPECT_TRUE(second.invalidated.empty());
    // The unannounced change has happened all the same.
    CallResult const note = get(gauge_path, gauge_interface, "Note", "s");
    char const* text = nullptr;
    ASSERT_GE(sd_bus_message_read(note.reply.get(), "s", &text), 0);
    EXPECT_STREQ(text, "hello");
    EXPECT_TRUE(server_errors().empty());
}

TEST_F(PropertyChangeTest, AChangeOfAnUnannouncedPropertyAloneSendsNoSignal)
{
    watch(properties, "PropertiesChanged");
    ASSERT_TRUE(set("Note", "s", "quiet").ok());
    ASSERT_TRUE(set("Counter", "t", UINT64_C(1)).ok());
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    Announcement const first = read_announcement(signals.front().get());
    EXPECT_TRUE(first.changed.empty());
    EXPECT_EQ(first.invalidated, std::vector<std::string>{"Counter"});
    EXPECT_TRUE(server_errors().empty());
}

TEST_F(PropertyChangeTest, IntrospectionCarriesEachAnnotation)
{
    std::string const xml = introspect();
    EXPECT_EQ(annotation_of(xml, "Level"), "") << "the default stays implicit\n" << xml;
    EXPECT_EQ(annotation_of(xml, "Counter"), "invalidates") << xml;
    EXPECT_EQ(annotation_of(xml, "Note"), "false") << xml;
    EXPECT_EQ(annotation_of(xml, "Serial"), "const") << xml;
    EXPECT_NE(xml.find("<property name=\"Serial\" type=\"s\" access=\"read\""), std::string::npos) << xml;
    EXPECT_NE(xml.find("<property name=\"Note\" type=\"s\" access=\"readwrite\""), std::string::npos) << xml;
}

TEST_F(PropertyChangeTest, GdbusIntrospectShowsEachAnnotation)
{
    std::string const command = "gdbus introspect --address '" + daemon.address() + "' --dest " + server_name
        + " --object-path " + gauge_path + " 2>&1";
    FILE* const child = ::popen(command.c_str(), "r");
    ASSERT_NE(child, nullptr);
    std::string output;
    char buffer[4096];
    while (std::size_t const n = std::fread(buffer, 1, sizeof buffer, child))
        output.append(buffer, n);
    ASSERT_EQ(::pclose(child), 0) << output;
    // gdbus writes the annotations of a property on the lines before it.
    auto annotated = [&](std::string const& value, std::string const& property) {
        std::string const annotation = "@org.freedesktop.DBus.Property.EmitsChangedSignal(\"" + value + "\")";
        for (std::size_t at = output.find(annotation); at != std::string::npos;
             at = output.find(annotation, at + 1)) {
            std::size_t next = output.find_first_not_of(" \n", at + annotation.size());
            while (next != std::string::npos && output[next] == '@')
                next = output.find_first_not_of(" \n", output.find('\n', next));
            if (next != std::string::npos && output.compare(next, property.size(), property) == 0)
                return true;
        }
        return false;
    };
    EXPECT_FALSE(annotated("true", "readwrite u Level")) << output;
    EXPECT_TRUE(annotated("invalidates", "readwrite t Counter")) << output;
    EXPECT_TRUE(annotated("false", "readwrite s Note")) << output;
    EXPECT_TRUE(annotated("const", "readonly s Serial")) << output;
}

TEST_F(PropertyChangeTest, AConstantPropertyRefusesEveryBusWrite)
{
    CallResult const single = set("Serial", "s", "S-2");
    EXPECT_EQ(single.error_name, "org.freedesktop.DBus.Error.PropertyReadOnly");
    EXPECT_EQ(single.error_message, "Property Serial is constant");
    CallResult const many = call(gauge_path, extended, "SetMany",
        [](sd_bus_message* m) { sd_bus_message_append(m, "sa(sv)", gauge_interface, 1, "Serial", "s", "S-2"); });
    EXPECT_EQ(many.error_name, "org.freedesktop.DBus.Error.PropertyReadOnly");
    EXPECT_EQ(many.error_message, "Property Serial is constant");
    CallResult const reset = call(gauge_path, extended, "Reset",
        [](sd_bus_message* m) { sd_bus_message_append(m, "sas", gauge_interface, 1, "Serial"); });
    EXPECT_EQ(reset.error_name, "org.freedesktop.DBus.Error.PropertyReadOnly");
    CallResult const value = get(gauge_path, gauge_interface, "Serial", "s");
    char const* text = nullptr;
    ASSERT_GE(sd_bus_message_read(value.reply.get(), "s", &text), 0);
    EXPECT_STREQ(text, "S-1");
}

TEST_F(PropertyChangeTest, AConstantPropertyRefusesSetAfterPublication)
{
    EXPECT_THROW(gauge->serial.set("S-2"), tarvek::invalid_state_error);
    EXPECT_EQ(gauge->serial.get(), "S-1");
}

TEST_F(PropertyChangeTest, AWriteOutsideAnEnforcedRangeIsRefusedAndChangesNothing)
{
    CallResult const single = set("Percent", "u", 101U);
    EXPECT_EQ(single.error_name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(single.error_message, "org.sample.Gauge: Property validation failure");
    CallResult const many = call(gauge_path, extended, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", gauge_interface, 2, "Level", "u", 3U, "Percent", "u", 200U);
    });
    EXPECT_EQ(many.error_name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(read_u("Percent"), 50U);
    EXPECT_EQ(read_u("Level"), 0U);
}

TEST_F(PropertyChangeTest, AWriteInsideAnEnforcedRangePasses)
{
    CallResult const top = set("Percent", "u", 100U);
    EXPECT_TRUE(top.ok()) << top.error_message;
    EXPECT_EQ(read_u("Percent"), 100U);
    CallResult const bottom = set("Percent", "u", 0U);
    EXPECT_TRUE(bottom.ok()) << bottom.error_message;
    EXPECT_EQ(read_u("Percent"), 0U);
}

TEST_F(PropertyChangeTest, APublishedRangeIsOnlyPublished)
{
    CallResult const outside = set("Hint", "u", 101U);
    EXPECT_TRUE(outside.ok()) << outside.error_message;
    EXPECT_EQ(read_u("Hint"), 101U);
}

} // namespace
} // namespace tarvek::test
