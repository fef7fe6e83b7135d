// SPDX-License-Identifier: LGPL-2.1-or-later
// org.sample.LampManager of tarvek-lamps: lamps added and removed at run time, what the
// object manager announces about them, the names it refuses, and calls to a lamp that is
// removed while they wait on the lamps' executor.
#include "examples/lamps_service.hpp"

#include <algorithm>
#include <string>
#include <vector>

namespace tarvek::test::lamps {
namespace {

// The interface names of an a{sa{sv}} (InterfacesAdded) or as (InterfacesRemoved).
std::vector<std::string> interface_names(sd_bus_message* message)
{
    std::vector<std::string> names;
    char type = 0;
    char const* contents = nullptr;
    if (sd_bus_message_peek_type(message, &type, &contents) <= 0 || type != SD_BUS_TYPE_ARRAY)
        return {"(no array)"};
    bool const dictionary = contents[0] == '{';
    sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, contents);
    if (dictionary) {
        while (sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sa{sv}") > 0) {
            char const* name = nullptr;
            sd_bus_message_read(message, "s", &name);
            names.emplace_back(name);
            sd_bus_message_skip(message, "a{sv}");
            sd_bus_message_exit_container(message);
        }
    } else {
        char const* name = nullptr;
        while (sd_bus_message_read(message, "s", &name) > 0)
            names.emplace_back(name);
    }
    sd_bus_message_exit_container(message);
    return names;
}

bool contains(std::vector<std::string> const& names, std::string const& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

class LampManagerTest : public LampsTest {
protected:
    CallResult add_lamp(std::string const& name)
    {
        return call(client.get(), root_path, manager_interface, "AddLamp",
            [&](sd_bus_message* m) { sd_bus_message_append(m, "s", name.c_str()); });
    }
    CallResult remove_lamp(std::string const& path)
    {
        return call(client.get(), root_path, manager_interface, "RemoveLamp",
            [&](sd_bus_message* m) { sd_bus_message_append(m, "o", path.c_str()); });
    }
    std::string list()
    {
        CallResult const result = call(client.get(), root_path, manager_interface, "List");
        return result.ok() ? render(result.reply.get()) : "error: " + result.error_name;
    }
};

TEST_F(LampManagerTest, AddLampPublishesANewLampAndAnnouncesIt)
{
    start_service();
    BusPtr watcher(daemon.connect());
    SignalWatch added(watcher.get(), root_path, object_manager_interface, "InterfacesAdded");

    CallResult const result = add_lamp("lamp7");
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(render(result.reply.get()), "\"/org/sample/lamps/lamp7\"");

    ASSERT_TRUE(added.wait_for(1)) << "no InterfacesAdded for the new lamp";
    sd_bus_message* signal = added.messages.front().get();
    char const* path = nullptr;
    ASSERT_GT(sd_bus_message_read(signal, "o", &path), 0);
    EXPECT_STREQ(path, "/org/sample/lamps/lamp7");
    auto const names = interface_names(signal);
    EXPECT_TRUE(contains(names, lamp_interface)) << testing::PrintToString(names);
    EXPECT_TRUE(contains(names, info_interface)) << testing::PrintToString(names);

    std::string const lamp7 = "/org/sample/lamps/lamp7";
    EXPECT_EQ(property(client.get(), lamp7, lamp_interface, "Level"), "<u 0>");
    EXPECT_EQ(property(client.get(), lamp7, info_interface, "Model"), "<s \"Sample Lamp\">");
    CallResult const toggled = call(client.get(), lamp7, lamp_interface, "Toggle");
    EXPECT_TRUE(toggled.ok()) << toggled.error_name << ": " << toggled.error_message;
    EXPECT_EQ(list(), "[\"/org/sample/lamps/lamp1\", \"/org/sample/lamps/lamp2\", \"/org/sample/lamps/lamp7\"]");
}

TEST_F(LampManagerTest, AddLampRefusesANameThatIsNotAPathElement)
{
    start_service();
    for (std::string const name : {"bad-name", "", "a/b", "lamp 8", "lämp"}) {
        SCOPED_TRACE("\"" + name + "\"");
        CallResult const result = add_lamp(name);
        EXPECT_EQ(result.error_name, invalid_args) << result.error_message;
    }
    EXPECT_EQ(list(), "[\"/org/sample/lamps/lamp1\", \"/org/sample/lamps/lamp2\"]");
}

TEST_F(LampManagerTest, AddLampRefusesATakenName)
{
    start_service();
    for (std::string const name : {"lamp1", "lamp2", "empty"}) {
        SCOPED_TRACE(name);
        CallResult const result = add_lamp(name);
        EXPECT_EQ(result.error_name, invalid_args) << result.error_message;
    }
    ASSERT_TRUE(add_lamp("lamp3").ok());
    EXPECT_EQ(add_lamp("lamp3").error_name, invalid_args);
    // The lamp that was there is untouched.
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Serial"), "<s \"LMP-1\">");
}

TEST_F(LampManagerTest, RemoveLampUnpublishesTheLampAndAnnouncesIt)
{
    start_service();
    BusPtr watcher(daemon.connect());
    SignalWatch removed(watcher.get(), root_path, object_manager_interface, "InterfacesRemoved");

    CallResult const result = remove_lamp(lamp2_path);
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;

    ASSERT_TRUE(removed.wait_for(1)) << "no InterfacesRemoved for the lamp";
    sd_bus_message* signal = removed.messages.front().get();
    char const* path = nullptr;
    ASSERT_GT(sd_bus_message_read(signal, "o", &path), 0);
    EXPECT_STREQ(path, lamp2_path);

    EXPECT_FALSE(get(client.get(), lamp2_path, lamp_interface, "Level").ok());
    EXPECT_EQ(list(), "[\"/org/sample/lamps/lamp1\"]");
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Level"), "<u 0>");

    // Its name is free again.
    CallResult const again = add_lamp("lamp2");
    EXPECT_TRUE(again.ok()) << again.error_name << ": " << again.error_message;
    EXPECT_EQ(property(client.get(), lamp2_path, lamp_interface, "On"), "<b false>");
}

TEST_F(LampManagerTest, RemoveLampOfAnUnknownPathIsRefused)
{
    start_service();
    for (std::string const path : {"/org/sample/lamps/lamp9", "/org/sample/lamps", "/org/sample/lamps/empty", "/"}) {
        SCOPED_TRACE(path);
        CallResult const result = remove_lamp(path);
        EXPECT_EQ(result.error_name, invalid_args) << result.error_message;
    }
    ASSERT_TRUE(remove_lamp(lamp1_path).ok());
    EXPECT_EQ(remove_lamp(lamp1_path).error_name, invalid_args);
    EXPECT_EQ(list(), "[\"/org/sample/lamps/lamp2\"]");
}

TEST_F(LampManagerTest, ListAnswersTheLampsInPathOrder)
{
    start_service();
    for (std::string const name : {"zeta", "alpha", "lamp10"})
        ASSERT_TRUE(add_lamp(name).ok()) << name;
    EXPECT_EQ(list(),
        "[\"/org/sample/lamps/alpha\", \"/org/sample/lamps/lamp1\", \"/org/sample/lamps/lamp10\", "
        "\"/org/sample/lamps/lamp2\", \"/org/sample/lamps/zeta\"]");
}

TEST_F(LampManagerTest, ABlinkUnderWayWhenItsLampIsRemovedIsAnsweredAsLost)
{
    start_service();
    // From one connection, so that the service takes the Blink before the removal.
    PendingCall blink(client.get(), lamp2_path, lamp_interface, "Blink",
        [](sd_bus_message* m) { sd_bus_message_append(m, "u", 500U); });
    CallResult const result = remove_lamp(lamp2_path);
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    ASSERT_TRUE(blink.wait()) << "the blink of the removed lamp was never answered";
    EXPECT_EQ(blink.result.error_name, "com.omno.Error.RequestLost") << blink.result.error_message;
}

TEST_F(LampManagerTest, ACallQueuedBeforeARemovalStillRuns)
{
    start_service();
    // The sleep holds the executor, so that the toggle and the removal queue up behind it
    // in that order.
    PendingCall sleep(client.get(), lamp1_path, lamp_interface, "Sleep",
        [](sd_bus_message* m) { sd_bus_message_append(m, "u", 300U); });
    PendingCall toggle(client.get(), lamp2_path, lamp_interface, "Toggle", {});
    PendingCall removal(client.get(), root_path, manager_interface, "RemoveLamp",
        [](sd_bus_message* m) { sd_bus_message_append(m, "o", lamp2_path); });

    for (PendingCall* pending : {&sleep, &toggle, &removal})
        ASSERT_TRUE(pending->wait()) << "a call was never answered";
    EXPECT_TRUE(sleep.result.ok()) << sleep.result.error_name;
    ASSERT_TRUE(toggle.result.ok()) << toggle.result.error_name << ": " << toggle.result.error_message;
    EXPECT_EQ(render(toggle.result.reply.get()), "true");
    EXPECT_TRUE(removal.result.ok()) << removal.result.error_name << ": " << removal.result.error_message;
    EXPECT_EQ(list(), "[\"/org/sample/lamps/lamp1\"]");
}

// The write below is accepted while lamp2 is registered and runs on the executor after the
// removal; the server reports the change for a path it no longer has as a failed task out
// of process(), which the service notes and survives.
TEST_F(LampManagerTest, WritesQueuedBehindARemovalLeaveTheServiceRunning)
{
    start_service();
    PendingCall sleep(client.get(), lamp1_path, lamp_interface, "Sleep",
        [](sd_bus_message* m) { sd_bus_message_append(m, "u", 300U); });
    PendingCall removal(client.get(), root_path, manager_interface, "RemoveLamp",
        [](sd_bus_message* m) { sd_bus_message_append(m, "o", lamp2_path); });
    PendingCall write(client.get(), lamp2_path, extended_interface, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp_interface, 1, "Level", "u", 5U);
    });
    PendingCall toggle(client.get(), lamp2_path, lamp_interface, "Toggle", {});

    for (PendingCall* pending : {&sleep, &removal, &write, &toggle})
        ASSERT_TRUE(pending->wait()) << "a call was never answered";
    EXPECT_TRUE(removal.result.ok()) << removal.result.error_name << ": " << removal.result.error_message;
    // Whether they reach the lamp before it goes is the service's to decide; an answer
    // from a service that still runs they get.
    for (PendingCall* pending : {&write, &toggle})
        EXPECT_NE(pending->result.error_name, "org.freedesktop.DBus.Error.NoReply");
    EXPECT_EQ(list(), "[\"/org/sample/lamps/lamp1\"]");
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Serial"), "<s \"LMP-1\">");
}

} // namespace
} // namespace tarvek::test::lamps
