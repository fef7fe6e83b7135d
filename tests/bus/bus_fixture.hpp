// SPDX-License-Identifier: LGPL-2.1-or-later
// BusTest: a DBusServer on a private dbus-daemon, as an application runs one. The server
// is driven by an FDPoller on a thread of its own; the objects run on a second FDPoller's
// executor on another thread; the test thread is the client, with a connection of its
// own and sd_bus_call with a time-out. The policy allows everything unless a test writes
// another one.
//
// Objects live in the fixture and end after both threads have stopped, so that nothing
// runs against them while they go. Exceptions that leave process() are recorded, not
// lost, and a test may look at them.
#pragma once

#include "server/dbus/policy_file.hpp"
#include "support/private_bus.hpp"

#include <tarvek/common/fd_poller.hpp>
#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/registry.hpp>
#include <tarvek/server/dbus_server.hpp>

#include <gtest/gtest.h>

#include <systemd/sd-bus.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tarvek::test {

// The interface that most bus tests publish.
class Lamp : public provider::Interface {
public:
    explicit Lamp(std::string name = "org.sample.Lamp")
        : Interface(std::move(name))
    {
    }

    Property<bool> on{*this, "On", false};
    Property<std::uint32_t> level{*this, "Level", 0, provider::Access::read_write, {{0U, 100U}, {5U}}};
    Property<std::string> label{*this, "Label", "lamp", provider::Access::read_only};
    Signal<std::uint64_t> blinked{*this, "Blinked"};
    Method toggle{*this, "Toggle", &Lamp::do_toggle};
    Method add{*this, "Add", [](std::int32_t a, std::int32_t b) -> std::int32_t { return a + b; }};
    // Raises the exception named by `kind`, as application code does: with a plain throw.
    Method fail{*this, "Fail", &Lamp::do_fail};
    // Blocks the object's executor until the test lets it go.
    Method wait{*this, "Wait", &Lamp::do_wait};

    std::shared_future<void> release;
    std::promise<void> entered;

protected:
    bool validate(Values const& values) const override { return values[level] <= 100; }

private:
    bool do_toggle()
    {
        on.set(!on.get());
        return on.get();
    }
    std::uint32_t do_wait()
    {
        entered.set_value();
        release.wait();
        return 7;
    }
    void do_fail(std::string kind);
};

// The outcome of one call as the client sees it.
struct CallResult {
    int r = 0;
    std::string error_name;
    std::string error_message;
    MessagePtr reply;

    bool ok() const { return r >= 0; }
};

class BusTest : public ::testing::Test {
protected:
    BusTest();
    void TearDown() override { stop(); }

    // A new object on the object thread's executor with `add` run on it before it is
    // registered at `path`.
    tarvek::Object& publish(std::string const& path, std::function<void(tarvek::Object&)> add);
    // A Lamp at `path`.
    Lamp& publish_lamp(std::string const& path = "/org/sample/lamp");
    void remove_object(tarvek::Object& object);

    // Enables incoming (unless told not to) and starts both threads; the set-up calls
    // come before.
    void start(bool incoming = true);
    // Runs `task` on the server's thread, as calls that belong there must, and waits.
    void on_server_thread(std::function<void()> task);
    void stop();

    // A new call to the server; `fill` appends the arguments in the second form.
    MessagePtr new_call(char const* path, char const* interface, char const* member);
    CallResult call(sd_bus_message* message, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    CallResult call(char const* path, char const* interface, char const* member,
        std::function<void(sd_bus_message*)> fill = {});
    // Properties.Get of one property, whose value is left at the variant's contents.
    CallResult get(char const* path, char const* interface, char const* property, char const* signature);
    // Processes the client connection until `done` or the time-out; false on time-out.
    bool pump_until(std::function<bool()> done, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Collects the signals of `interface` and `member` that reach the client.
    void watch(char const* interface, char const* member);
    std::vector<std::string> server_errors();

    PolicyFile policy{"allow * *\n"};
    PrivateBus daemon;
    BusPtr server_connection{daemon.connect()};
    BusPtr client{daemon.connect()};
    std::string server_name;
    common::FDPoller server_loop;
    std::unique_ptr<server::DBusServer> server;
    common::FDPoller object_loop;
    API_Registry registry;
    std::list<tarvek::Object> objects;
    std::list<MessagePtr> signals;

private:
    static int on_signal(sd_bus_message* message, void* userdata, sd_bus_error* error);

    std::vector<sd_bus_slot*> matches;
    std::mutex errors_mutex;
    std::vector<std::string> errors;
    std::thread server_thread;
    std::thread object_thread;
};

// Reads the names of the changed properties of a PropertiesChanged signal.
std::vector<std::string> changed_names(sd_bus_message* signal);

} // namespace tarvek::test
