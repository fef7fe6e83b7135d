// SPDX-License-Identifier: LGPL-2.1-or-later
#include "examples/player_service.hpp"

#include <csignal>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <sys/wait.h>

namespace tarvek::test::player {

namespace {

[[noreturn]] void fail(std::string const& what)
{
    throw std::runtime_error(what);
}

int exit_status(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

std::string track_id(unsigned number)
{
    return "/org/tarvek/player/track/" + std::to_string(number);
}

std::string player_binary()
{
    return TARVEK_PLAYER_BINARY;
}

std::string playerctl_binary()
{
    return TARVEK_PLAYERCTL;
}

PlayerTest::PlayerTest()
    : client(daemon.connect())
{
}

void PlayerTest::TearDown()
{
    if (service && service->running()) {
        EXPECT_EQ(stop_player(), 0) << "tarvek-player did not exit cleanly after SIGTERM";
    }
}

void PlayerTest::start_player(std::vector<std::string> const& tracks)
{
    auto const policy = directory.path() / "policy.conf";
    {
        std::ofstream out(policy, std::ios::trunc);
        out << "allow * *\n";
        if (!out)
            fail("cannot write " + policy.string());
    }
    std::vector<std::string> arguments{
        player_binary(), "--bus-address", daemon.address(), "--name", player_name};
    for (auto const& track : tracks) {
        arguments.push_back("--track");
        arguments.push_back(track);
    }
    service = std::make_unique<ServiceProcess>(
        arguments, std::vector<std::string>{"VREL2_POLICY=" + policy.string()}, false);
    // Generous: a sanitizer build starts slowly on a busy machine.
    auto const line = service->read_line(15s);
    if (line != "ready") {
        service->kill();
        fail("tarvek-player did not say ready, but " + (line ? "\"" + *line + "\"" : std::string("nothing")));
    }
}

int PlayerTest::stop_player()
{
    if (!service || !service->running())
        fail("no player to stop");
    service->signal(SIGTERM);
    auto const status = service->wait(20s);
    if (!status) {
        service->kill();
        ADD_FAILURE() << "tarvek-player did not end within 20 s of SIGTERM";
        return -1;
    }
    if (WIFSIGNALED(*status))
        ADD_FAILURE() << "tarvek-player ended by signal " << WTERMSIG(*status);
    return exit_status(*status);
}

CallResult PlayerTest::call(char const* interface, char const* member, Fill const& fill)
{
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(client.get(), &raw, bus_name, player_path, interface, member);
    if (r < 0)
        fail("cannot make a call to " + std::string(member));
    MessagePtr message(raw);
    if (fill)
        fill(message.get());
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    CallResult result;
    result.r = sd_bus_call(client.get(), message.get(), 10'000'000, &error, &reply);
    if (result.r < 0) {
        result.error_name = error.name ? error.name : "";
        result.error_message = error.message ? error.message : "";
    }
    result.reply.reset(reply);
    sd_bus_error_free(&error);
    return result;
}

std::string PlayerTest::property(char const* interface, char const* name)
{
    CallResult const result = call("org.freedesktop.DBus.Properties", "Get",
        [&](sd_bus_message* m) { sd_bus_message_append(m, "ss", interface, name); });
    if (!result.ok())
        return "error: " + result.error_name + ": " + result.error_message;
    return render(result.reply.get());
}

CallResult PlayerTest::set_property(char const* interface, char const* name, Fill const& fill)
{
    return call("org.freedesktop.DBus.Properties", "Set", [&](sd_bus_message* m) {
        sd_bus_message_append(m, "ss", interface, name);
        fill(m);
    });
}

std::map<std::string, std::string> PlayerTest::metadata()
{
    CallResult const result = call("org.freedesktop.DBus.Properties", "Get",
        [&](sd_bus_message* m) { sd_bus_message_append(m, "ss", player_interface, "Metadata"); });
    if (!result.ok())
        fail("cannot read Metadata: " + result.error_name + ": " + result.error_message);
    if (sd_bus_message_enter_container(result.reply.get(), SD_BUS_TYPE_VARIANT, "a{sv}") <= 0)
        fail("Metadata is not an a{sv}");
    return read_properties(result.reply.get());
}

bool PlayerTest::property_becomes(
    char const* interface, char const* name, std::string const& expected, std::chrono::milliseconds timeout)
{
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (property(interface, name) == expected)
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(50ms);
    }
}

std::unique_ptr<ServiceProcess> PlayerTest::playerctl_running(std::vector<std::string> const& arguments)
{
    std::vector<std::string> argv{playerctl_binary(), "-p", player_name};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    // The private bus stands in for the session bus, where media players live.
    return std::make_unique<ServiceProcess>(
        argv, std::vector<std::string>{"DBUS_SESSION_BUS_ADDRESS=" + daemon.address()}, true);
}

Output PlayerTest::playerctl(std::vector<std::string> const& arguments)
{
    auto process = playerctl_running(arguments);
    Output output;
    while (auto line = process->read_line(20s))
        output.out += *line + "\n";
    output.err = process->read_stderr(5s);
    auto const status = process->wait(5s);
    if (!status)
        fail("playerctl still runs 20 s after it was started");
    output.status = exit_status(*status);
    return output;
}

void PlayerctlTest::SetUp()
{
    if (playerctl_binary().empty())
        GTEST_SKIP() << "playerctl is not installed (scripts/install-deps.sh installs it)";
}

std::pair<int, std::string> run_player_to_exit(std::vector<std::string> const& arguments)
{
    std::vector<std::string> argv{player_binary()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    ServiceProcess process(argv, {}, true);
    std::string const errors = process.read_stderr(10s);
    auto const status = process.wait(10s);
    if (!status)
        fail("tarvek-player still runs 10 s after it was started with bad arguments");
    return {exit_status(*status), errors};
}

} // namespace tarvek::test::player
