// SPDX-License-Identifier: LGPL-2.1-or-later
// Object managers on the bus: InterfacesAdded and InterfacesRemoved for the objects that
// a manager covers by whole path elements, and GetManagedObjects.
#include "bus/bus_fixture.hpp"

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
