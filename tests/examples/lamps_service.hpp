// SPDX-License-Identifier: LGPL-2.1-or-later
// The example service tarvek-lamps as its clients meet it: a child process on a private
// dbus-daemon, talked to through plain sd-bus calls from the test's own connections.
//
// ServiceProcess runs the program with a policy of the test's choosing, and never
// outlives the test: it dies with the test process, and an object that ends while it
// runs kills and reaps it. LampsTest gives each test its own bus, directory, policy and
// service, stops the service with SIGTERM at the end and expects a clean exit, so that a
// crash or a sanitizer report in the service fails the test that caused it.
#pragma once

#include "support/private_bus.hpp"

#include <gtest/gtest.h>

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace tarvek::test::lamps {

using namespace std::chrono_literals;

inline constexpr char const* service_name = "org.sample.Lamps";
inline constexpr char const* root_path = "/org/sample/lamps";
inline constexpr char const* lamp1_path = "/org/sample/lamps/lamp1";
inline constexpr char const* lamp2_path = "/org/sample/lamps/lamp2";
inline constexpr char const* lamp_interface = "org.sample.Lamp";
inline constexpr char const* info_interface = "org.sample.Info";
inline constexpr char const* manager_interface = "org.sample.LampManager";
inline constexpr char const* properties_interface = "org.freedesktop.DBus.Properties";
inline constexpr char const* extended_interface = "com.omno.ExtendedProperties";
inline constexpr char const* object_manager_interface = "org.freedesktop.DBus.ObjectManager";

inline constexpr char const* invalid_args = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr char const* access_denied = "org.freedesktop.DBus.Error.AccessDenied";

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;
    ~TemporaryDirectory();

    std::filesystem::path const& path() const noexcept { return path_; }

private:
    std::filesystem::path path_;
};

// A child process running `arguments` (the program first) with the test's environment plus
// `environment` ("NAME=value"), its stdout read by the test, its stderr either captured
// or left on the test's own (where a sanitizer report of the child shows in the log).
class ServiceProcess {
public:
    ServiceProcess(std::vector<std::string> const& arguments, std::vector<std::string> const& environment,
        bool capture_stderr);
    ServiceProcess(ServiceProcess const&) = delete;
    ServiceProcess& operator=(ServiceProcess const&) = delete;
    // Kills and reaps a child that still runs.
    ~ServiceProcess();

    pid_t pid() const noexcept { return pid_; }
    bool running() const noexcept { return pid_ > 0; }

    // The next line on stdout, without its newline; nullopt when none comes within
    // `timeout` or stdout ends first.
    std::optional<std::string> read_line(std::chrono::milliseconds timeout);
    // Everything the child writes to its captured stderr until it closes it, at most
    // `timeout` long.
    std::string read_stderr(std::chrono::milliseconds timeout);
    void signal(int number) const;
    // Waits at most `timeout` for the child to end; its wait status, or nullopt if it still
    // runs.
    std::optional<int> wait(std::chrono::milliseconds timeout);
    // SIGKILL and reap.
    void kill() noexcept;

private:
    pid_t pid_ = -1;
    int stdout_ = -1;
    int stderr_ = -1;
    std::string buffered_;
};

// The outcome of one call as the client sees it.
struct CallResult {
    int r = 0;
    std::string error_name;
    std::string error_message;
    MessagePtr reply;

    bool ok() const { return r >= 0; }
};

using Fill = std::function<void(sd_bus_message*)>;

// A method call to the service by its well-known name, with a time-out.
CallResult call(sd_bus* bus, std::string const& path, char const* interface, char const* member,
    Fill const& fill = {}, std::chrono::milliseconds timeout = 10s);
// Properties.Get; on success the reply is left at the variant.
CallResult get(sd_bus* bus, std::string const& path, char const* interface, char const* property);
// Properties.Set of a value that `fill` appends as a variant (signature, then values).
CallResult set(sd_bus* bus, std::string const& path, char const* interface, char const* property,
    Fill const& fill);

// The next complete value of `message` as text: numbers as such, strings quoted,
// structures in (), arrays in [], dictionaries in {} with "key: value", variants as
// <signature value>. Doubles print in the shortest form ("1", "0.25").
std::string render(sd_bus_message* message);
// Reads an a{sv} into property name -> rendered variant.
std::map<std::string, std::string> read_properties(sd_bus_message* message);
// The value of one property as render() writes its variant, such as "<u 0>"; a string that
// starts with "error: " when the read fails.
std::string property(sd_bus* bus, std::string const& path, char const* interface, char const* name);

// Signals that reach a connection, collected as they come while the test waits.
class SignalWatch {
public:
    SignalWatch(sd_bus* bus, char const* path, char const* interface, char const* member);
    SignalWatch(SignalWatch const&) = delete;
    SignalWatch& operator=(SignalWatch const&) = delete;
    ~SignalWatch();

    // Processes the connection until `count` signals have come or `timeout` has passed;
    // false on time-out.
    bool wait_for(std::size_t count, std::chrono::milliseconds timeout = 10s);

    std::vector<MessagePtr> messages;

private:
    static int on_signal(sd_bus_message* message, void* userdata, sd_bus_error* error);

    sd_bus* bus_;
    sd_bus_slot* slot_ = nullptr;
};

// Processes `bus` until `done` or the time-out; false on time-out.
bool pump_until(sd_bus* bus, std::function<bool()> const& done, std::chrono::milliseconds timeout = 10s);

// A call sent without waiting for its answer; the answer arrives while the connection is
// processed.
class PendingCall {
public:
    PendingCall(sd_bus* bus, std::string const& path, char const* interface, char const* member, Fill const& fill);
    PendingCall(PendingCall const&) = delete;
    PendingCall& operator=(PendingCall const&) = delete;
    ~PendingCall();

    bool answered() const noexcept { return answered_; }
    // Processes the connection until the answer is in; false on time-out.
    bool wait(std::chrono::milliseconds timeout = 10s);

    CallResult result;
    std::chrono::steady_clock::time_point answered_at;

private:
    static int on_reply(sd_bus_message* message, void* userdata, sd_bus_error* error);

    sd_bus* bus_;
    sd_bus_slot* slot_ = nullptr;
    bool answered_ = false;
};

// How a service is started.
struct ServiceOptions {
    std::optional<unsigned> lamps;
    std::optional<std::filesystem::path> state_dir;
    std::string policy = "allow * *\n";

    ServiceOptions& with_lamps(unsigned count) { lamps = count; return *this; }
    ServiceOptions& with_state_dir(std::filesystem::path dir) { state_dir = std::move(dir); return *this; }
    ServiceOptions& with_policy(std::string rules) { policy = std::move(rules); return *this; }
};

class LampsTest : public ::testing::Test {
protected:
    LampsTest();
    // Stops a service that still runs and expects a clean exit.
    void TearDown() override;

    // Starts tarvek-lamps on the private bus and waits until it says it is ready; raises
    // std::runtime_error if it doesn't.
    void start_service(ServiceOptions const& options = {});
    // SIGTERM, and the exit status (or -1 for anything but a normal exit); the process
    // is reaped either way.
    int stop_service();

    PrivateBus daemon;
    TemporaryDirectory directory;
    BusPtr client;
    std::unique_ptr<ServiceProcess> service;
};

// The path of the program under test.
std::string lamps_binary();

// Runs tarvek-lamps with `arguments` and no bus, and returns its exit status (-1 if it
// ends otherwise) with what it wrote to stderr. Raises if it runs for longer than 10 s.
std::pair<int, std::string> run_to_exit(std::vector<std::string> const& arguments);

} // namespace tarvek::test::lamps
