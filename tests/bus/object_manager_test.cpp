// SPDX-License-Identifier: LGPL-2.1-or-later
// Object managers on the bus: InterfacesAdded and InterfacesRemoved for the objects that
// a manager covers by whole path elements, and GetManagedObjects.
#include "bus/bus_fixture.hpp"

#include <algorithm>
#include <cstdio>
#include <string>

namespace tarvek::test {
namespace {

char const* object_of(sd_bus_message* signal)
{
    char const* path = nullptr;
    sd_bus_message_rewind(signal, 1);
    sd_bus_message_read(signal, "o", &path);
    return path;
}

std::vector<std::string> added_interfaces(sd_bus_message* signal)
{
    std::vector<std::string> names;
    object_of(signal);
    sd_bus_message_enter_container(signal, 'a', "{sa{sv}}");
    while (sd_bus_message_enter_container(signal, 'e', "sa{sv}") > 0) {
        char const* name = nullptr;
        sd_bus_message_read(signal, "s", &name);
        names.emplace_back(name);
        sd_bus_message_skip(signal, "a{sv}");
        sd_bus_message_exit_container(signal);
    }
    return names;
}

std::vector<std::string> removed_interfaces(sd_bus_message* signal)
{
    std::vector<std::string> names;
    object_of(signal);
    sd_bus_message_enter_container(signal, 'a', "s");
    char const* name = nullptr;
    while (sd_bus_message_read(signal, "s", &name) > 0)
        names.emplace_back(name);
    sd_bus_message_exit_container(signal);
    return names;
}

// A GDBus object-manager client in a child process (gdbus_manager_client.py, on the system's
// python3 with its gi bindings), read line by line.
class ManagerClient {
public:
    ManagerClient(std::string const& address, std::string const& name, char const* manager, char const* object)
    {
        std::string const command = std::string("/usr/bin/python3 ") + TARVEK_TEST_BUS_DIR
            + "/gdbus_manager_client.py '" + address + "' " + name + " " + manager + " " + object + " 2>&1";
        child = ::popen(command.c_str(), "r");
    }
    ManagerClient(ManagerClient const&) = delete;
    ManagerClient& operator=(ManagerClient const&) = delete;
    ~ManagerClient()
    {
        if (child)
            ::pclose(child);
    }

    // The next line without its newline; "(end)" once the child has ended.
    std::string line()
    {
        char buffer[4096];
        if (!child || !std::fgets(buffer, sizeof buffer, child))
            return "(end)";
        std::string text(buffer);
        if (!text.empty() && text.back() == '\n')
            text.pop_back();
        return text;
    }
    int finish()
    {
        int const status = ::pclose(child);
        child = nullptr;
        return status;
    }

private:
    FILE* child = nullptr;
};

class ObjectManagerTest : public BusTest {
protected:
    void watch_managers()
    {
        watch("org.freedesktop.DBus.ObjectManager", "InterfacesAdded");
        watch("org.freedesktop.DBus.ObjectManager", "InterfacesRemoved");
    }
    // Leaves time for signals that might still come.
    void settle_signals()
    {
        pump_until([] { return false; }, std::chrono::milliseconds(300));
    }
};

TEST_F(ObjectManagerTest, AnObjectBelowAManagerIsAnnouncedAndWithdrawn)
{
    server->add_object_manager(ObjectPath("/org/sample"));
    start();
    watch_managers();
    publish_lamp("/org/sample/lamp");
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    EXPECT_STREQ(sd_bus_message_get_member(signals.front().get()), "InterfacesAdded");
    EXPECT_STREQ(object_of(signals.front().get()), "/org/sample/lamp");
    std::vector<std::string> const names = added_interfaces(signals.front().get());
    EXPECT_NE(std::find(names.begin(), names.end(), "org.sample.Lamp"), names.end());
    EXPECT_NE(std::find(names.begin(), names.end(), "com.omno.ExtendedProperties"), names.end());

    signals.clear();
    remove_object(objects.back());
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    EXPECT_STREQ(sd_bus_message_get_member(signals.front().get()), "InterfacesRemoved");
    EXPECT_STREQ(object_of(signals.front().get()), "/org/sample/lamp");
    EXPECT_TRUE(server_errors().empty());
}

TEST_F(ObjectManagerTest, InterfacesRemovedListsEveryInterfaceThatInterfacesAddedListed)
{
    server->add_object_manager(ObjectPath("/org/sample"));
    start();
    watch_managers();
    tarvek::Object& object = publish("/org/sample/lamp", [](tarvek::Object& added) {
        provider::add_interface<Lamp>(added);
        provider::add_interface<Lamp>(added, "org.sample.Spare");
    });
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    std::vector<std::string> const added = added_interfaces(signals.front().get());
    signals.clear();
    remove_object(object);
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    ASSERT_STREQ(sd_bus_message_get_member(signals.front().get()), "InterfacesRemoved");
    std::vector<std::string> const removed = removed_interfaces(signals.front().get());
    EXPECT_EQ(removed, added);
    EXPECT_NE(std::find(removed.begin(), removed.end(), "org.sample.Spare"), removed.end());
    EXPECT_NE(std::find(removed.begin(), removed.end(), "com.omno.ExtendedProperties"), removed.end());
    EXPECT_TRUE(server_errors().empty());
}

TEST_F(ObjectManagerTest, InterfacesRemovedOfAnObjectAtTheManagersOwnPathListsWhatWasAdded)
{
    server->add_object_manager(ObjectPath("/org/sample"));
    start();
    watch_managers();
    publish_lamp("/org/sample");
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    std::vector<std::string> const added = added_interfaces(signals.front().get());
    signals.clear();
    remove_object(objects.back());
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    EXPECT_EQ(removed_interfaces(signals.front().get()), added);
    EXPECT_TRUE(server_errors().empty());
}

TEST_F(ObjectManagerTest, AGDBusManagerClientDropsARemovedObjectEntirely)
{
    server->add_object_manager(ObjectPath("/org/sample"));
    start();
    ManagerClient gdbus(daemon.address(), server_name, "/org/sample", "/org/sample/lamp");
    ASSERT_EQ(gdbus.line(), "ready");
    publish_lamp("/org/sample/lamp");
    std::string const added = gdbus.line();
    EXPECT_EQ(added.rfind("added ", 0), 0U) << added;
    EXPECT_NE(added.find("org.sample.Lamp"), std::string::npos) << added;
    EXPECT_NE(added.find("com.omno.ExtendedProperties"), std::string::npos) << added;
    remove_object(objects.back());
    EXPECT_EQ(gdbus.line(), "removed");
    EXPECT_EQ(gdbus.finish(), 0);
    EXPECT_TRUE(server_errors().empty());
}

TEST_F(ObjectManagerTest, OnlyWholePathElementsCount)
{
    server->add_object_manager(ObjectPath("/a"));
    start();
    watch_managers();
    publish_lamp("/ab");
    publish_lamp("/a");
    publish_lamp("/a/b");
    ASSERT_TRUE(pump_until([&] { return signals.size() >= 2; }));
    settle_signals();
    ASSERT_EQ(signals.size(), 2U);
    EXPECT_STREQ(object_of(signals.front().get()), "/a");
    EXPECT_STREQ(object_of(signals.back().get()), "/a/b");
}

TEST_F(ObjectManagerTest, AManagerAtTheRootCoversTheRootAlone)
{
    server->add_object_manager(ObjectPath("/"));
    start();
    watch_managers();
    publish_lamp("/x");
    publish_lamp("/");
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    settle_signals();
    ASSERT_EQ(signals.size(), 1U);
    EXPECT_STREQ(object_of(signals.front().get()), "/");
    EXPECT_TRUE(server_errors().empty());
}

TEST_F(ObjectManagerTest, GetManagedObjectsListsTheObjectsWithTheirValues)
{
    server->add_object_manager(ObjectPath("/org/sample"));
    publish_lamp("/org/sample/lamp").level.set(17U);
    start();
    CallResult const result = call("/org/sample", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects");
    ASSERT_TRUE(result.ok()) << result.error_message;
    sd_bus_message* reply = result.reply.get();
    ASSERT_GT(sd_bus_message_enter_container(reply, 'a', "{oa{sa{sv}}}"), 0);
    ASSERT_GT(sd_bus_message_enter_container(reply, 'e', "oa{sa{sv}}"), 0);
    char const* path = nullptr;
    sd_bus_message_read(reply, "o", &path);
    EXPECT_STREQ(path, "/org/sample/lamp");
}

TEST_F(ObjectManagerTest, ASecondRegistrationOfAManagerChangesNothing)
{
    server->add_object_manager(ObjectPath("/org/sample"));
    server->add_object_manager(ObjectPath("/org/sample"));
    start();
    watch_managers();
    publish_lamp("/org/sample/lamp");
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    settle_signals();
    EXPECT_EQ(signals.size(), 1U);
    EXPECT_TRUE(server_errors().empty());
}

TEST_F(ObjectManagerTest, AnObjectWithoutInterfacesStillHasExtendedProperties)
{
    publish("/org/sample/empty", {});
    start();
    CallResult const result = call("/org/sample/empty", "org.freedesktop.DBus.Introspectable", "Introspect");
    ASSERT_TRUE(result.ok()) << result.error_message;
    char const* xml = nullptr;
    ASSERT_GT(sd_bus_message_read(result.reply.get(), "s", &xml), 0);
    EXPECT_NE(std::string(xml).find("com.omno.ExtendedProperties"), std::string::npos);

    CallResult const set = call("/org/sample/empty", "org.freedesktop.DBus.Properties", "Set",
        [](sd_bus_message* m) { sd_bus_message_append(m, "ssv", "org.sample.Lamp", "Level", "u", 1U); });
    EXPECT_EQ(set.error_name, "org.freedesktop.DBus.Error.UnknownInterface");
    EXPECT_EQ(set.error_message, "Object /org/sample/empty: No such interface: org.sample.Lamp");
}

} // namespace
} // namespace tarvek::test
