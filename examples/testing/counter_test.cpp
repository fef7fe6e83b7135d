// SPDX-License-Identifier: LGPL-2.1-or-later
// Testing a service with the test fixture: the service runs in the test process on a
// private dbus-daemon, and the tests talk to it as any client would, with typed calls,
// property reads and writes, and signals.
#include <tarvek/tarvek.hpp>
#include <tarvek/testing/client.hpp>
#include <tarvek/testing/other_user.hpp>
#include <tarvek/testing/private_bus.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <poll.h>

namespace {

using namespace std::chrono_literals;

// The service under test.
class Counter : public tarvek::provider::Interface {
public:
    Counter() : Interface("org.sample.Counter") {}

    Property<std::uint32_t> count{*this, "Count", 0};
    Signal<std::uint32_t> changed{*this, "Changed"};
    Method add{*this, "Add", &Counter::do_add};

private:
    std::uint32_t do_add(std::uint32_t by)
    {
        if (by == 0)
            throw tarvek::invalid_argument("nothing to add");
        count.set(count.get() + by);
        changed.emit(count.get());
        return count.get();
    }
};

// Lets everybody do everything: the access policy that the service reads at its start.
struct AllowAll {
    explicit AllowAll(std::string const& directory)
    {
        std::string const path = directory + "/policy.conf";
        std::ofstream(path) << "allow * *\n";
        ::setenv("VREL2_POLICY", path.c_str(), 1);
    }
};

// The service on a private bus, served by a thread of its own as main() would serve it.
class CounterTest : public ::testing::Test {
protected:
    CounterTest()
    {
        counter = &tarvek::provider::add_interface<Counter>(object);
        registry.add_server(server);
        registry.add_object(object, tarvek::ObjectPath("/org/sample/counter"));
        server.request_name("org.sample.Counter");
        server.enable_incoming(true);
        loop.add(server.epoll_fd(), POLLIN, [this](pollfd&) { server.process(); });
        thread = std::thread([this] { loop.loop(); });
        EXPECT_TRUE(client.wait_for_name("org.sample.Counter", 10s));
    }
    ~CounterTest() override
    {
        loop.stop();
        loop.wakeup();
        thread.join();
    }

    tarvek::test::PrivateBus bus;
    AllowAll policy{bus.directory()};
    tarvek::test::BusPtr connection{bus.connect()};
    tarvek::server::DBusServer server{connection.get()};
    tarvek::API_Registry registry;
    tarvek::common::FDPoller loop;
    tarvek::Object object{loop.executor()};
    Counter* counter = nullptr;
    std::thread thread;

    tarvek::test::Client client{bus.address()};
    tarvek::test::Proxy proxy{client, "org.sample.Counter", "/org/sample/counter", "org.sample.Counter"};
};

TEST_F(CounterTest, AddReturnsTheNewCount)
{
    EXPECT_EQ(proxy.call<std::uint32_t>("Add", 5U).value(), 5U);
    EXPECT_EQ(proxy.get<std::uint32_t>("Count").value(), 5U);
}

TEST_F(CounterTest, AddingNothingIsRefusedAsAnInvalidArgument)
{
    auto const refused = proxy.call<std::uint32_t>("Add", 0U);
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(refused.error().message, "nothing to add");
}

TEST_F(CounterTest, TheCountCanBeWrittenFromTheBus)
{
    ASSERT_TRUE(proxy.set("Count", 40U).ok());
    EXPECT_EQ(counter->count.get(), 40U);
    EXPECT_EQ(proxy.get_all()->at("Count").as<std::uint32_t>(), 40U);
}

TEST_F(CounterTest, AddAnnouncesTheNewCount)
{
    tarvek::test::SignalWatch changed = proxy.watch("Changed");
    auto pending = proxy.call_async<std::uint32_t>("Add", 2U);
    EXPECT_EQ(changed.next<std::uint32_t>(10s), 2U);
    EXPECT_EQ(pending.wait().value(), 2U);
    EXPECT_FALSE(changed.next<std::uint32_t>(100ms).has_value());
}

TEST_F(CounterTest, AnotherUserMayCallToo)
{
    if (auto why = tarvek::test::cannot_run_as("nobody"))
        GTEST_SKIP() << *why;
    std::string const answer = tarvek::test::run_as("nobody", [&] {
        tarvek::test::Client other(bus.address());
        return std::to_string(other.call<std::uint32_t>("org.sample.Counter", "/org/sample/counter",
                                                        "org.sample.Counter", "Add", 3U)
                                  .value());
    });
    EXPECT_EQ(answer, "3");
}

} // namespace
