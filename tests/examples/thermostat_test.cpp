// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek-thermostat, the smallest service on server::Service, as systemd and clients meet
// it: a child process on the test's own bus (as its system bus) with a NOTIFY_SOCKET of
// the test's own, a unix datagram socket in a temporary directory, whose messages the
// test reads in order.
#include "examples/lamps_service.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarvek::test::lamps {
namespace {

constexpr char const* thermostat_name = "org.sample.Thermostat";
constexpr char const* thermostat_path = "/org/sample/Thermostat";
constexpr char const* thermostat_interface = "org.sample.Thermostat";

// The receiving end of sd_notify: one datagram per message, each of "KEY=value" lines.
class NotifySocket {
public:
    explicit NotifySocket(std::filesystem::path path)
        : path_(std::move(path))
    {
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0)
            throw std::runtime_error("socket: " + std::string(std::strerror(errno)));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        if (::bind(fd_, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0)
            throw std::runtime_error("bind: " + std::string(std::strerror(errno)));
    }
    NotifySocket(NotifySocket const&) = delete;
    NotifySocket& operator=(NotifySocket const&) = delete;
    ~NotifySocket() { ::close(fd_); }

    std::string environment() const { return "NOTIFY_SOCKET=" + path_.string(); }

    // The next message, or nullopt if none comes within `timeout`.
    std::optional<std::string> receive(std::chrono::milliseconds timeout)
    {
        pollfd entry{fd_, POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(timeout.count())) <= 0)
            return std::nullopt;
        char buffer[4096];
        ssize_t const n = ::recv(fd_, buffer, sizeof buffer, 0);
        if (n < 0)
            return std::nullopt;
        return std::string(buffer, static_cast<std::size_t>(n));
    }

    // Messages until one holds `line` (that one included), at most `timeout` in all.
    std::vector<std::string> receive_until(std::string const& line, std::chrono::milliseconds timeout)
    {
        std::vector<std::string> messages;
        auto const deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            auto message = receive(std::max(left, std::chrono::milliseconds(1)));
            if (!message)
                break;
            messages.push_back(*message);
            if (has_line(*message, line))
                break;
        }
        return messages;
    }

    static bool has_line(std::string const& message, std::string const& line)
    {
        std::istringstream in(message);
        for (std::string each; std::getline(in, each);)
            if (each == line)
                return true;
        return false;
    }

private:
    std::filesystem::path path_;
    int fd_ = -1;
};

// A call to the thermostat; the lamps' helpers address org.sample.Lamps.
CallResult call_thermostat(sd_bus* bus, char const* interface, char const* member, Fill const& fill)
{
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus, &raw, thermostat_name, thermostat_path, interface, member);
    if (r < 0)
        throw std::runtime_error("cannot make a call to " + std::string(member));
    MessagePtr message(raw);
    fill(message.get());
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    r = sd_bus_call(bus, message.get(), 10'000'000, &error, &reply);
    CallResult result;
    result.r = r;
    result.reply.reset(reply);
    if (r < 0) {
        result.error_name = error.name ? error.name : "";
        result.error_message = error.message ? error.message : "";
    }
    sd_bus_error_free(&error);
    return result;
}

// A property of the thermostat's interface as render() writes its variant ("<d 21>").
std::string thermostat_property(sd_bus* bus, char const* name)
{
    CallResult const result = call_thermostat(bus, properties_interface, "Get",
        [&](sd_bus_message* m) { sd_bus_message_append(m, "ss", thermostat_interface, name); });
    return result.ok() ? render(result.reply.get()) : "error: " + result.error_name;
}

CallResult set_thermostat(sd_bus* bus, char const* name, char const* signature, double value)
{
    return call_thermostat(bus, properties_interface, "Set", [&](sd_bus_message* m) {
        sd_bus_message_append(m, "ssv", thermostat_interface, name, signature, value);
    });
}

// Where in `messages` the first one holding `line` stands, or -1.
int position(std::vector<std::string> const& messages, std::string const& line)
{
    for (std::size_t i = 0; i < messages.size(); ++i)
        if (NotifySocket::has_line(messages[i], line))
            return static_cast<int>(i);
    return -1;
}

class ThermostatTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        if (service && service->running()) {
            service->signal(SIGTERM);
            EXPECT_EQ(exit_status(), 0) << "tarvek-thermostat did not exit cleanly after SIGTERM";
        }
    }

    // Starts the service; `environment` adds to the bus, policy and notify socket.
    void start(std::vector<std::string> environment = {})
    {
        auto const policy = directory.path() / "policy.conf";
        std::ofstream(policy) << "allow * *\n";
        environment.push_back("DBUS_SYSTEM_BUS_ADDRESS=" + daemon.address());
        environment.push_back("VREL2_POLICY=" + policy.string());
        environment.push_back(notify.environment());
        service = std::make_unique<ServiceProcess>(
            std::vector<std::string>{TARVEK_THERMOSTAT_BINARY}, environment, true);
    }

    int exit_status()
    {
        auto const status = service->wait(20s);
        if (!status) {
            service->kill();
            ADD_FAILURE() << "tarvek-thermostat still runs after 20 s";
            return -1;
        }
        return WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    }

    bool name_owned() { return sd_bus_get_name_creds(client.get(), thermostat_name, 0, nullptr) >= 0; }

    PrivateBus daemon;
    TemporaryDirectory directory;
    NotifySocket notify{directory.path() / "notify"};
    BusPtr client{daemon.connect()};
    std::unique_ptr<ServiceProcess> service;
};

TEST_F(ThermostatTest, SaysReadyOnlyOnceItOwnsItsName)
{
    start();
    auto const messages = notify.receive_until("READY=1", 15s);
    ASSERT_EQ(position(messages, "READY=1"), static_cast<int>(messages.size()) - 1);
    EXPECT_TRUE(name_owned());
    EXPECT_TRUE(NotifySocket::has_line(messages.back(), "STATUS=Serving org.sample.Thermostat"))
        << messages.back();
    EXPECT_EQ(thermostat_property(client.get(), "Target"), "<d 21>");
}

TEST_F(ThermostatTest, SaysStoppingAfterReadyAndExitsWithStatus0OnSigterm)
{
    start();
    ASSERT_GE(position(notify.receive_until("READY=1", 15s), "READY=1"), 0);
    service->signal(SIGTERM);
    auto const messages = notify.receive_until("STOPPING=1", 15s);
    ASSERT_GE(position(messages, "STOPPING=1"), 0);
    EXPECT_EQ(position(messages, "READY=1"), -1) << "READY=1 came twice";
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(service->read_stderr(5s), "");
}

TEST_F(ThermostatTest, StopsWithStatus0OnSigint)
{
    start();
    ASSERT_GE(position(notify.receive_until("READY=1", 15s), "READY=1"), 0);
    service->signal(SIGINT);
    EXPECT_GE(position(notify.receive_until("STOPPING=1", 15s), "STOPPING=1"), 0);
    EXPECT_EQ(exit_status(), 0);
}

TEST_F(ThermostatTest, PingsTheWatchdogWhileItRunsWhenSystemdAsks)
{
    start({"WATCHDOG_USEC=200000"});
    ASSERT_GE(position(notify.receive_until("READY=1", 15s), "READY=1"), 0);
    auto const first = notify.receive_until("WATCHDOG=1", 10s);
    ASSERT_GE(position(first, "WATCHDOG=1"), 0);
    auto const second = notify.receive_until("WATCHDOG=1", 10s);
    EXPECT_GE(position(second, "WATCHDOG=1"), 0);
}

TEST_F(ThermostatTest, SendsNoWatchdogPingUnlessAsked)
{
    start();
    ASSERT_GE(position(notify.receive_until("READY=1", 15s), "READY=1"), 0);
    // A round trip to the service: a ping at half of any interval would have come by now
    // if one were armed at all (the default interval of systemd is far longer, but the
    // service arms nothing without WATCHDOG_USEC).
    EXPECT_EQ(thermostat_property(client.get(), "Mode"), "<s \"auto\">");
    service->signal(SIGTERM);
    auto const messages = notify.receive_until("STOPPING=1", 15s);
    EXPECT_EQ(position(messages, "WATCHDOG=1"), -1);
    EXPECT_EQ(exit_status(), 0);
}

TEST_F(ThermostatTest, ATakenNameEndsItWithStatus1AndOneLineAndNoReadiness)
{
    ASSERT_GE(sd_bus_request_name(client.get(), thermostat_name, 0), 0);
    start();
    EXPECT_EQ(exit_status(), 1);
    std::string const errors = service->read_stderr(5s);
    EXPECT_EQ(errors,
        "tarvek-thermostat: The name org.sample.Thermostat is owned by another connection: File exists\n");
    std::vector<std::string> messages;
    while (auto message = notify.receive(100ms))
        messages.push_back(*message);
    EXPECT_EQ(position(messages, "READY=1"), -1);
    EXPECT_GE(position(messages, "ERRNO=17"), 0);
}

TEST_F(ThermostatTest, AnswersItsMethodAndValidatesWrites)
{
    start();
    ASSERT_GE(position(notify.receive_until("READY=1", 15s), "READY=1"), 0);
    CallResult const boosted = call_thermostat(client.get(), thermostat_interface, "Boost",
        [](sd_bus_message* m) { sd_bus_message_append(m, "d", 2.5); });
    ASSERT_TRUE(boosted.ok()) << boosted.error_name << ": " << boosted.error_message;
    EXPECT_EQ(render(boosted.reply.get()), "23.5");

    CallResult const refused = set_thermostat(client.get(), "Target", "d", 40.0);
    EXPECT_EQ(refused.error_name, invalid_args);
    CallResult const read_only = set_thermostat(client.get(), "Temperature", "d", 1.0);
    EXPECT_EQ(read_only.error_name, "org.freedesktop.DBus.Error.PropertyReadOnly");
    EXPECT_EQ(thermostat_property(client.get(), "Target"), "<d 23.5>");
}

} // namespace
} // namespace tarvek::test::lamps
