// SPDX-License-Identifier: LGPL-2.1-or-later
// The access policy on the bus: every read, write and call is checked for the sender,
// and a refusal names the action; a policy that can't be consulted is told apart.
#include "bus/bus_fixture.hpp"

#include <pwd.h>
#include <regex>
#include <cstdio>
#include <unistd.h>

namespace tarvek::test {
namespace {

constexpr char const* lamp_path = "/org/sample/lamp";
constexpr char const* lamp = "org.sample.Lamp";
constexpr char const* extended = "com.omno.ExtendedProperties";

class AccessTest : public BusTest {
protected:
    AccessTest()
        : lamp_object(publish_lamp(lamp_path))
    {
        client_name = unique_name(client.get());
        user = getpwuid(geteuid())->pw_name;
        start();
    }

    std::string refusal(std::string const& action) const
    {
        return "Sender " + client_name + " / " + user + " not permitted to do action " + action;
    }

    Lamp& lamp_object;
    std::string client_name;
    std::string user;
};

TEST_F(AccessTest, ARefusedCallAnswersAccessDeniedNamingTheAction)
{
    policy.write("deny * org.sample.lamp.call.toggle\nallow * *\n");
    CallResult const result = call(lamp_path, lamp, "Toggle");
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(result.error_message, refusal("org.sample.Lamp.call.Toggle"));
    EXPECT_FALSE(lamp_object.on.get());
}

// A real client of another user: dbus-send in a child that drops to nobody.
TEST_F(AccessTest, AClientRunningAsAnotherUserIsRefusedWithItsUserName)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "dropping to another user needs root";
    policy.write("allow " + user + " *\n");
    std::string const command = "setpriv --reuid=nobody --regid=nogroup --clear-groups dbus-send --bus='" +
        daemon.address() + "' --print-reply --dest=" + server_name + " " + lamp_path + " " + lamp + ".Toggle 2>&1";
    std::string output;
    FILE* const child = ::popen(command.c_str(), "r");
    ASSERT_NE(child, nullptr);
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, child) != nullptr)
        output += buffer;
    int const status = ::pclose(child);
    EXPECT_NE(status, 0) << output;
    while (!output.empty() && output.back() == '\n')
        output.pop_back();
    EXPECT_TRUE(std::regex_search(output,
        std::regex("^Error org\\.freedesktop\\.DBus\\.Error\\.AccessDenied: Sender :[0-9]+\\.[0-9]+ / nobody not "
                   "permitted to do action org\\.sample\\.Lamp\\.call\\.Toggle$")))
        << output;
    EXPECT_FALSE(lamp_object.on.get());
}

TEST_F(AccessTest, ARefusedGetAllAnswersAccessDeniedForTheRead)
{
    policy.write("deny * org.sample.lamp.read\nallow * *\n");
    CallResult const result = call(lamp_path, "org.freedesktop.DBus.Properties", "GetAll",
        [](sd_bus_message* m) { sd_bus_message_append(m, "s", lamp); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(result.error_message, refusal("org.sample.Lamp.read"));
}

TEST_F(AccessTest, ARefusedGetManyAnswersAccessDeniedForTheRead)
{
    policy.write("deny * org.sample.lamp.read\nallow * *\n");
    CallResult const result = call(lamp_path, extended, "GetMany",
        [](sd_bus_message* m) { sd_bus_message_append(m, "sas", lamp, 1, "Level"); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(result.error_message, refusal("org.sample.Lamp.read"));
}

TEST_F(AccessTest, ARefusedSetAnswersAccessDeniedAndWritesNothing)
{
    policy.write("deny * org.sample.lamp.write.level\nallow * *\n");
    CallResult const result = call(lamp_path, "org.freedesktop.DBus.Properties", "Set",
        [](sd_bus_message* m) { sd_bus_message_append(m, "ssv", lamp, "Level", "u", 5U); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(result.error_message, refusal("org.sample.Lamp.write.Level"));
    EXPECT_EQ(lamp_object.level.get(), 0U);
}

TEST_F(AccessTest, SetOfAReadOnlyPropertySaysReadOnlyEvenToARefusedSender)
{
    policy.write("deny * *\n");
    CallResult const result = call(lamp_path, "org.freedesktop.DBus.Properties", "Set",
        [](sd_bus_message* m) { sd_bus_message_append(m, "ssv", lamp, "Label", "s", "x"); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.PropertyReadOnly");
}

TEST_F(AccessTest, SetManyWithARefusedNameLooksAtNoValue)
{
    policy.write("deny * org.sample.lamp.write.on\nallow * *\n");
    // The unknown name behind the refused one is never looked at.
    CallResult const result = call(lamp_path, extended, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp, 3, "Level", "u", 5U, "On", "b", 1, "Nothing", "s", "x");
    });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(result.error_message, refusal("org.sample.Lamp.write.On"));
    EXPECT_EQ(lamp_object.level.get(), 0U);
}

TEST_F(AccessTest, SetManyOfAReadOnlyPropertyByARefusedSenderAnswersTheRefusal)
{
    policy.write("deny * *\n");
    CallResult const result = call(lamp_path, extended, "SetMany",
        [](sd_bus_message* m) { sd_bus_message_append(m, "sa(sv)", lamp, 1, "Label", "s", "x"); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(result.error_message, refusal("org.sample.Lamp.write.Label"));
}

TEST_F(AccessTest, ARefusedResetAnswersAccessDenied)
{
    lamp_object.level.set(9U);
    policy.write("deny * org.sample.lamp.write.level\nallow * *\n");
    CallResult const result = call(lamp_path, extended, "Reset",
        [](sd_bus_message* m) { sd_bus_message_append(m, "sas", lamp, 1, "Level"); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(result.error_message, refusal("org.sample.Lamp.write.Level"));
    EXPECT_EQ(lamp_object.level.get(), 9U);
}

TEST_F(AccessTest, APolicyThatCannotBeReadAnswersAuthFailed)
{
    policy.write("this is no policy at all\n");
    CallResult const result = call(lamp_path, lamp, "Toggle");
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.AuthFailed");
    EXPECT_EQ(result.error_message.rfind("Auth check failure: ", 0), 0U) << result.error_message;
    EXPECT_FALSE(lamp_object.on.get());

    CallResult const read = get(lamp_path, lamp, "Level", "u");
    EXPECT_EQ(read.error_name, "org.freedesktop.DBus.Error.AuthFailed");
}

TEST_F(AccessTest, SignalsCarryValuesWithoutAnyCheck)
{
    policy.write("deny * *\n");
    watch("org.freedesktop.DBus.Properties", "PropertiesChanged");
    lamp_object.level.set(3U);
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    EXPECT_EQ(changed_names(signals.front().get()), (std::vector<std::string>{"Level"}));
}

TEST_F(AccessTest, InterfacesAddedCarriesValuesWithoutAnyCheck)
{
    policy.write("deny * *\n");
    server->add_object_manager(ObjectPath("/org/other"));
    watch("org.freedesktop.DBus.ObjectManager", "InterfacesAdded");
    publish_lamp("/org/other/lamp");
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    sd_bus_message* signal = signals.front().get();
    char const* path = nullptr;
    ASSERT_GT(sd_bus_message_read(signal, "o", &path), 0);
    ASSERT_GT(sd_bus_message_enter_container(signal, 'a', "{sa{sv}}"), 0);
    std::vector<std::string> lamp_properties;
    while (sd_bus_message_enter_container(signal, 'e', "sa{sv}") > 0) {
        char const* interface = nullptr;
        sd_bus_message_read(signal, "s", &interface);
        sd_bus_message_enter_container(signal, 'a', "{sv}");
        while (sd_bus_message_enter_container(signal, 'e', "sv") > 0) {
            char const* name = nullptr;
            sd_bus_message_read(signal, "s", &name);
            if (std::string(interface) == lamp)
                lamp_properties.emplace_back(name);
            sd_bus_message_skip(signal, "v");
            sd_bus_message_exit_container(signal);
        }
        sd_bus_message_exit_container(signal);
        sd_bus_message_exit_container(signal);
    }
    EXPECT_EQ(lamp_properties, (std::vector<std::string>{"On", "Level", "Label"}));
    EXPECT_TRUE(server_errors().empty());
}

} // namespace
} // namespace tarvek::test
