// SPDX-License-Identifier: LGPL-2.1-or-later
// The server itself: its connection, the gate of incoming requests, the timer, and the
// queue through which set-up calls and notifications reach the bus and report failures.
#include "bus/bus_fixture.hpp"

#include <tarvek/glue/collection.hpp>

#include <poll.h>

namespace tarvek::test {
namespace {

constexpr char const* lamp_path = "/org/sample/lamp";
constexpr char const* lamp = "org.sample.Lamp";

bool readable(int fd)
{
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
}

// An object as a protocol server may be handed it, without interfaces; it tells when it
// ends.
class BareObject final : public glue::IObject {
public:
    explicit BareObject(bool* destroyed = nullptr)
        : destroyed(destroyed)
    {
    }
    ~BareObject() override
    {
        if (destroyed)
            *destroyed = true;
    }

    glue::ICollection<glue::IInterface>& interfaces() override { return none; }
    glue::ICollection<glue::IInterface> const& interfaces() const override { return none; }

private:
    class None final : public glue::ICollection<glue::IInterface> {
    public:
        unsigned long size() const override { return 0; }
        glue::IInterface& operator[](unsigned long) override { throw std::out_of_range("none"); }
        glue::IInterface const& operator[](unsigned long) const override { throw std::out_of_range("none"); }
    } none;
    bool* destroyed;
};

using DBusServerTest = BusTest;

TEST_F(DBusServerTest, ItsNameIsDbusServer)
{
    EXPECT_EQ(server->name(), "dbus-server");
}

TEST_F(DBusServerTest, TheBusDescriptorIsTheConnections)
{
    EXPECT_EQ(server->get_bus_fd(), sd_bus_get_fd(server_connection.get()));
}

TEST_F(DBusServerTest, ATimeoutOfZeroMakesTheSetReadableAtOnce)
{
    server->process();
    EXPECT_FALSE(readable(server->epoll_fd()));
    server->update_timeout(0);
    EXPECT_TRUE(readable(server->epoll_fd()));
    server->process();
    server->update_timeout(~0UL);
    EXPECT_FALSE(readable(server->epoll_fd()));
}

TEST_F(DBusServerTest, DisablingIncomingDisarmsTheTimerAndStillRunsTasks)
{
    server->update_timeout(0);
    server->enable_incoming(false);
    server->process();
    EXPECT_FALSE(readable(server->epoll_fd()));
    server->on_object_removed(ObjectPath("/nothing"));
    EXPECT_TRUE(readable(server->epoll_fd()));
    EXPECT_THROW(server->process(), tarvek::invalid_argument);
}

TEST_F(DBusServerTest, NoRequestIsServedBeforeIncomingIsEnabled)
{
    publish_lamp(lamp_path);
    start(false);
    MessagePtr early = new_call(lamp_path, "org.freedesktop.DBus.Properties", "Get");
    sd_bus_message_append(early.get(), "ss", lamp, "Level");
    EXPECT_EQ(call(early.get(), std::chrono::milliseconds(300)).r, -ETIMEDOUT);

    on_server_thread([this] { server->enable_incoming(true); });
    CallResult const read = get(lamp_path, lamp, "Level", "u");
    EXPECT_TRUE(read.ok()) << read.error_message;
}

TEST_F(DBusServerTest, ARequestedNameReachesTheObjects)
{
    publish_lamp(lamp_path);
    server->request_name("org.sample.Service");
    start();
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int const r = sd_bus_call_method(client.get(), "org.sample.Service", lamp_path,
        "org.freedesktop.DBus.Properties", "Get", &error, &reply, "ss", lamp, "Level");
    EXPECT_GE(r, 0) << (error.message ? error.message : "");
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
}

TEST_F(DBusServerTest, ARefusedNameFailsTheNextProcessAndLaterTasksStillRun)
{
    server->request_name("not a bus name");
    server->request_name("org.sample.Later");
    start();
    ASSERT_TRUE(pump_until([&] { return !server_errors().empty(); }));
    EXPECT_EQ(server_errors().front(), "Could not request service name not a bus name: Invalid argument");

    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    bool owned = false;
    pump_until([&] {
        int const r = sd_bus_call_method(client.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
            "org.freedesktop.DBus", "NameHasOwner", &error, &reply, "s", "org.sample.Later");
        int has = 0;
        owned = r >= 0 && sd_bus_message_read(reply, "b", &has) > 0 && has;
        sd_bus_error_free(&error);
        reply = sd_bus_message_unref(reply);
        return owned;
    });
    EXPECT_TRUE(owned);
}

TEST_F(DBusServerTest, AnObjectAddedTwiceFailsTheNextProcessAndKeepsTheFirst)
{
    start();
    server->on_object_added(std::make_unique<BareObject>(), ObjectPath("/bare"));
    server->on_object_added(std::make_unique<BareObject>(), ObjectPath("/bare"));
    ASSERT_TRUE(pump_until([&] { return !server_errors().empty(); }));
    // The second object's own registration at the path is refused before the tree is
    // asked; either way the first one stays.
    EXPECT_EQ(server_errors().front(), "ExtendedProperties: Could not register sd_bus_vtable: File exists");
    CallResult const result = call("/bare", "org.freedesktop.DBus.Introspectable", "Introspect");
    EXPECT_TRUE(result.ok()) << result.error_message;
}

TEST_F(DBusServerTest, RemovingAnUnknownPathFailsTheNextProcess)
{
    start();
    server->on_object_removed(ObjectPath("/nothing"));
    ASSERT_TRUE(pump_until([&] { return !server_errors().empty(); }));
    EXPECT_EQ(server_errors().front(), "No such object: /nothing");
}

TEST_F(DBusServerTest, AnAddedObjectIsOnTheBusBeforeItsFirstSignal)
{
    Lamp& lamp_object = publish_lamp(lamp_path);
    watch(lamp, "Blinked");
    lamp_object.blinked.emit(1);
    start();
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    EXPECT_TRUE(server_errors().empty());
}

TEST(DBusServerConnection, AHandedInConnectionStaysOpen)
{
    PolicyFile policy("allow * *\n");
    PrivateBus daemon;
    BusPtr connection(daemon.connect());
    {
        server::DBusServer server(connection.get());
    }
    EXPECT_GT(sd_bus_is_open(connection.get()), 0);
}

TEST(DBusServerConnection, QueuedTasksEndUnrunWithTheServer)
{
    PolicyFile policy("allow * *\n");
    PrivateBus daemon;
    BusPtr connection(daemon.connect());
    bool destroyed = false;
    {
        server::DBusServer server(connection.get());
        server.on_object_added(std::make_unique<BareObject>(&destroyed), ObjectPath("/bare"));
    }
    EXPECT_TRUE(destroyed);
    // Nothing was registered on the connection, which goes on without the server.
    EXPECT_GT(sd_bus_is_open(connection.get()), 0);
}

TEST(DBusServerConnection, WithoutAConnectionTheServerOpensTheDefaultBus)
{
    PolicyFile policy("allow * *\n");
    PrivateBus daemon;
    // The default bus of a process outside a user session is the system bus.
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", daemon.address().c_str(), 1);
    {
        server::DBusServer server(nullptr);
        EXPECT_GE(server.get_bus_fd(), 0);
    }
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

} // namespace
} // namespace tarvek::test
