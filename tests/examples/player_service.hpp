// SPDX-License-Identifier: LGPL-2.1-or-later
// The example media player tarvek-player as its clients meet it: a child process on a
// private dbus-daemon, driven by the stock MPRIS client playerctl (with the private bus as
// its session bus) and by plain sd-bus calls. The process plumbing is the lamps tests'.
//
// PlayerTest gives each test its own bus and player, stops the player with SIGTERM at the
// end and expects a clean exit, so that a crash or a sanitizer report in the player fails
// the test that caused it.
#pragma once

#include "examples/lamps_service.hpp"

#include <gtest/gtest.h>

#include <systemd/sd-bus.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarvek::test::player {

using lamps::CallResult;
using lamps::Fill;
using lamps::pump_until;
using lamps::read_properties;
using lamps::render;
using lamps::ServiceProcess;
using lamps::SignalWatch;
using lamps::TemporaryDirectory;
using namespace std::chrono_literals;

inline constexpr char const* player_name = "tarvektest";
inline constexpr char const* bus_name = "org.mpris.MediaPlayer2.tarvektest";
inline constexpr char const* player_path = "/org/mpris/MediaPlayer2";
inline constexpr char const* root_interface = "org.mpris.MediaPlayer2";
inline constexpr char const* player_interface = "org.mpris.MediaPlayer2.Player";
inline constexpr char const* invalid_args = "org.freedesktop.DBus.Error.InvalidArgs";

// Three tracks of known lengths, as --track arguments.
inline std::vector<std::string> const three_tracks{
    "First Light|Ann Aro|Dawn|30",
    "Second Wind|Bo Berg, Cy Cole|Noon|40",
    "Third Rail|Di Dahl|Dusk|50",
};

// The id of the n-th track (from 1) of the player's list.
std::string track_id(unsigned number);

// What a run of a command-line program left behind.
struct Output {
    int status = -1; // the exit status, -1 for anything but a normal exit
    std::string out;
    std::string err;
};

class PlayerTest : public ::testing::Test {
protected:
    PlayerTest();
    // Stops a player that still runs and expects a clean exit.
    void TearDown() override;

    // Starts tarvek-player on the private bus with `tracks` (the built-in list if empty)
    // and waits until it says it is ready; raises std::runtime_error if it doesn't.
    void start_player(std::vector<std::string> const& tracks = three_tracks);
    // SIGTERM, and the exit status (or -1 for anything but a normal exit).
    int stop_player();

    // A method call to the player, by its bus name.
    CallResult call(char const* interface, char const* member, Fill const& fill = {});
    // One property as render() writes its variant, such as "<s \"Playing\">"; a text that
    // starts with "error: " when the read fails.
    std::string property(char const* interface, char const* name);
    CallResult set_property(char const* interface, char const* name, Fill const& fill);
    // The player's Metadata: key -> the value as render() writes a variant, such as
    // "<s \"First Light\">". Raises std::runtime_error when it cannot be read.
    std::map<std::string, std::string> metadata();
    // Polls a property until it reads `expected`, at most `timeout` long; false if it
    // never does.
    bool property_becomes(char const* interface, char const* name, std::string const& expected,
        std::chrono::milliseconds timeout = 10s);

    // Runs `playerctl -p tarvektest ARGUMENTS...` on the private bus to its end; raises if
    // it runs for longer than 20 s.
    Output playerctl(std::vector<std::string> const& arguments);
    // Starts `playerctl -p tarvektest ARGUMENTS...` (a --follow) and leaves it running.
    std::unique_ptr<ServiceProcess> playerctl_running(std::vector<std::string> const& arguments);

    PrivateBus daemon;
    TemporaryDirectory directory;
    BusPtr client;
    std::unique_ptr<ServiceProcess> service;
};

// Tests that drive the player with playerctl; skipped where it is not installed.
class PlayerctlTest : public PlayerTest {
protected:
    void SetUp() override;
};

std::string player_binary();
// Empty when playerctl was not found at configuration time.
std::string playerctl_binary();

// Runs tarvek-player with `arguments` and no bus, and returns its exit status (-1 if it
// ends otherwise) with what it wrote to stderr. Raises if it runs for longer than 10 s.
std::pair<int, std::string> run_player_to_exit(std::vector<std::string> const& arguments);

} // namespace tarvek::test::player
