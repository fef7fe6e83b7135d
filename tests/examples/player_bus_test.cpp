// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek-player through plain sd-bus calls: its introspection against the published MPRIS
// 2 names and types, Seeked after Seek and SetPosition, SetPosition for a stale track,
// tracks that end on their own, the checks on Rate and LoopStatus, OpenUri of an
// unsupported URI, Quit, and the command line.
#include "examples/player_service.hpp"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include <sys/wait.h>

namespace tarvek::test::player {
namespace {

// The text of one interface element of an introspection, empty if there is none.
std::string interface_element(std::string const& xml, std::string const& name)
{
    auto const start = xml.find("<interface name=\"" + name + "\">");
    if (start == std::string::npos)
        return {};
    auto const end = xml.find("</interface>", start);
    return xml.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

// Property name -> "type access".
std::map<std::string, std::string> properties_of(std::string const& element)
{
    std::map<std::string, std::string> properties;
    std::regex const pattern(R"re(<property name="([^"]+)" type="([^"]+)" access="([^"]+)")re");
    for (std::sregex_iterator it(element.begin(), element.end(), pattern), end; it != end; ++it)
        properties[(*it)[1]] = std::string((*it)[2]) + " " + std::string((*it)[3]);
    return properties;
}

// Method or signal name -> the types of its arguments in order, each with its direction
// for a method and its name where it has one ("in:o:TrackId in:x:Position"; "x:Position"
// for a signal).
std::map<std::string, std::string> members_of(std::string const& element, std::string const& kind)
{
    std::map<std::string, std::string> members;
    std::regex const member("<" + kind + R"re( name="([^"]+)"\s*(/>|>([\s\S]*?)</)re" + kind + ">)");
    std::regex const argument(R"re(<arg ([^>]*)>)re");
    std::regex const type(R"re(type="([^"]+)")re");
    std::regex const direction(R"re(direction="([^"]+)")re");
    std::regex const name(R"re(name="([^"]+)")re");
    for (std::sregex_iterator it(element.begin(), element.end(), member), end; it != end; ++it) {
        std::string const body = (*it)[3];
        std::string arguments;
        for (std::sregex_iterator a(body.begin(), body.end(), argument); a != end; ++a) {
            std::string const attributes = (*a)[1];
            std::smatch t, d, n;
            std::regex_search(attributes, t, type);
            bool const has_direction = std::regex_search(attributes, d, direction);
            bool const has_name = std::regex_search(attributes, n, name);
            if (!arguments.empty())
                arguments += " ";
            arguments += (has_direction ? std::string(d[1]) + ":" : std::string()) + std::string(t[1])
                + (has_name ? ":" + std::string(n[1]) : std::string());
        }
        members[(*it)[1]] = arguments;
    }
    return members;
}

class PlayerBusTest : public PlayerTest {
protected:
    std::string introspection()
    {
        CallResult const result = call("org.freedesktop.DBus.Introspectable", "Introspect");
        if (!result.ok())
            return "error: " + result.error_name;
        char const* xml = nullptr;
        if (sd_bus_message_read(result.reply.get(), "s", &xml) <= 0)
            return "error: no string";
        return xml;
    }

    // The position of a Seeked signal.
    static std::int64_t seeked_position(sd_bus_message* signal)
    {
        std::int64_t position = -1;
        EXPECT_GT(sd_bus_message_read(signal, "x", &position), 0);
        return position;
    }
};

TEST_F(PlayerBusTest, IntrospectionShowsThePublishedApplicationInterface)
{
    start_player();
    std::string const root = interface_element(introspection(), root_interface);
    ASSERT_FALSE(root.empty());
    std::map<std::string, std::string> const expected{
        {"CanQuit", "b read"},
        {"CanRaise", "b read"},
        {"HasTrackList", "b read"},
        {"Identity", "s read"},
        {"DesktopEntry", "s read"},
        {"SupportedUriSchemes", "as read"},
        {"SupportedMimeTypes", "as read"},
    };
    EXPECT_EQ(properties_of(root), expected);
    EXPECT_EQ(members_of(root, "method"), (std::map<std::string, std::string>{{"Quit", ""}, {"Raise", ""}}));
}

TEST_F(PlayerBusTest, IntrospectionShowsThePublishedPlayerInterface)
{
    start_player();
    std::string const player = interface_element(introspection(), player_interface);
    ASSERT_FALSE(player.empty());
    std::map<std::string, std::string> const properties{
        {"PlaybackStatus", "s read"},
        {"LoopStatus", "s readwrite"},
        {"Rate", "d readwrite"},
        {"Shuffle", "b readwrite"},
        {"Metadata", "a{sv} read"},
        {"Volume", "d readwrite"},
        {"Position", "x read"},
        {"MinimumRate", "d read"},
        {"MaximumRate", "d read"},
        {"CanGoNext", "b read"},
        {"CanGoPrevious", "b read"},
        {"CanPlay", "b read"},
        {"CanPause", "b read"},
        {"CanSeek", "b read"},
        {"CanControl", "b read"},
    };
    EXPECT_EQ(properties_of(player), properties);
    std::map<std::string, std::string> const methods{
        {"Next", ""},
        {"Previous", ""},
        {"Pause", ""},
        {"PlayPause", ""},
        {"Stop", ""},
        {"Play", ""},
        {"Seek", "in:x:Offset"},
        {"SetPosition", "in:o:TrackId in:x:Position"},
        {"OpenUri", "in:s:Uri"},
    };
    EXPECT_EQ(members_of(player, "method"), methods);
    EXPECT_EQ(members_of(player, "signal"), (std::map<std::string, std::string>{{"Seeked", "x:Position"}}));
    // Position and CanControl are published without change signals, as the interface says.
    std::regex const unannounced(
        R"re(<property name="(Position|CanControl)"[^>]*>\s*<annotation name="org.freedesktop.DBus.Property.EmitsChangedSignal" value="false"/>)re");
    EXPECT_EQ(std::distance(std::sregex_iterator(player.begin(), player.end(), unannounced), std::sregex_iterator()), 2);
}

TEST_F(PlayerBusTest, EveryPropertyOfBothInterfacesReads)
{
    start_player();
    for (char const* name : {"CanQuit", "CanRaise", "HasTrackList", "Identity", "DesktopEntry",
             "SupportedUriSchemes", "SupportedMimeTypes"})
        EXPECT_EQ(property(root_interface, name).rfind("error: ", 0), std::string::npos) << name;
    EXPECT_EQ(property(root_interface, "Identity"), "<s \"Tarvek Player\">");
    EXPECT_EQ(property(root_interface, "SupportedUriSchemes"), "<as [\"file\"]>");
    EXPECT_EQ(property(player_interface, "PlaybackStatus"), "<s \"Stopped\">");
    EXPECT_EQ(property(player_interface, "LoopStatus"), "<s \"None\">");
    EXPECT_EQ(property(player_interface, "Rate"), "<d 1>");
    EXPECT_EQ(property(player_interface, "MinimumRate"), "<d 0.5>");
    EXPECT_EQ(property(player_interface, "MaximumRate"), "<d 2>");
    EXPECT_EQ(property(player_interface, "Position"), "<x 0>");
    EXPECT_EQ(property(player_interface, "CanControl"), "<b true>");
}

TEST_F(PlayerBusTest, MetadataDescribesTheCurrentTrack)
{
    start_player();
    std::map<std::string, std::string> const first{
        {"mpris:trackid", "<o \"/org/tarvek/player/track/1\">"},
        {"mpris:length", "<x 30000000>"},
        {"xesam:title", "<s \"First Light\">"},
        {"xesam:artist", "<as [\"Ann Aro\"]>"},
        {"xesam:album", "<s \"Dawn\">"},
        {"xesam:trackNumber", "<i 1>"},
    };
    EXPECT_EQ(metadata(), first);

    ASSERT_TRUE(call(player_interface, "Next").ok());
    auto const second = metadata();
    EXPECT_EQ(second.at("mpris:trackid"), "<o \"/org/tarvek/player/track/2\">");
    EXPECT_EQ(second.at("xesam:artist"), "<as [\"Bo Berg\", \"Cy Cole\"]>");
    EXPECT_EQ(second.at("mpris:length"), "<x 40000000>");
}

TEST_F(PlayerBusTest, ANewTrackIsAnnouncedWithItsMetadataAndStatusInOneChange)
{
    start_player();
    SignalWatch changed(client.get(), player_path, "org.freedesktop.DBus.Properties", "PropertiesChanged");
    ASSERT_TRUE(call(player_interface, "Next").ok());
    ASSERT_TRUE(changed.wait_for(1));
    sd_bus_message* signal = changed.messages.front().get();
    char const* interface = nullptr;
    ASSERT_GT(sd_bus_message_read(signal, "s", &interface), 0);
    EXPECT_STREQ(interface, player_interface);
    auto const properties = read_properties(signal);
    ASSERT_EQ(properties.count("Metadata"), 1U);
    EXPECT_NE(properties.at("Metadata").find("Second Wind"), std::string::npos);
    EXPECT_EQ(properties.at("CanGoPrevious"), "<b true>");
}

TEST_F(PlayerBusTest, AnOpenedUriBecomesATrackWithItsUrl)
{
    start_player();
    ASSERT_TRUE(call(player_interface, "OpenUri", [](sd_bus_message* m) {
        sd_bus_message_append(m, "s", "file:///music/Fourth%20Wall.ogg");
    }).ok());
    auto const opened = metadata();
    EXPECT_EQ(opened.at("xesam:url"), "<s \"file:///music/Fourth%20Wall.ogg\">");
    EXPECT_EQ(opened.at("xesam:title"), "<s \"Fourth Wall\">");
    EXPECT_EQ(opened.at("mpris:trackid"), "<o \"/org/tarvek/player/track/4\">");
    EXPECT_EQ(property(player_interface, "PlaybackStatus"), "<s \"Playing\">");
}

TEST_F(PlayerBusTest, SeekEmitsSeekedWithTheNewPosition)
{
    start_player();
    ASSERT_TRUE(call(player_interface, "Play").ok());
    ASSERT_TRUE(call(player_interface, "Pause").ok());
    SignalWatch seeked(client.get(), player_path, player_interface, "Seeked");
    ASSERT_TRUE(call(player_interface, "Seek", [](sd_bus_message* m) {
        sd_bus_message_append(m, "x", std::int64_t{12'000'000});
    }).ok());
    ASSERT_TRUE(seeked.wait_for(1));
    std::int64_t const position = seeked_position(seeked.messages.front().get());
    EXPECT_GE(position, 12'000'000);
    EXPECT_LT(position, 13'000'000);
    EXPECT_EQ(property(player_interface, "Position"), "<x " + std::to_string(position) + ">");
}

TEST_F(PlayerBusTest, SetPositionOfTheCurrentTrackEmitsSeeked)
{
    start_player();
    ASSERT_TRUE(call(player_interface, "Play").ok());
    ASSERT_TRUE(call(player_interface, "Pause").ok());
    SignalWatch seeked(client.get(), player_path, player_interface, "Seeked");
    ASSERT_TRUE(call(player_interface, "SetPosition", [](sd_bus_message* m) {
        sd_bus_message_append(m, "ox", track_id(1).c_str(), std::int64_t{20'000'000});
    }).ok());
    ASSERT_TRUE(seeked.wait_for(1));
    EXPECT_EQ(seeked_position(seeked.messages.front().get()), 20'000'000);
    EXPECT_EQ(property(player_interface, "Position"), "<x 20000000>");
}

TEST_F(PlayerBusTest, SetPositionOfAnotherTrackOrPastTheEndIsIgnored)
{
    start_player();
    ASSERT_TRUE(call(player_interface, "Play").ok());
    ASSERT_TRUE(call(player_interface, "Pause").ok());
    std::string const before = property(player_interface, "Position");
    SignalWatch seeked(client.get(), player_path, player_interface, "Seeked");
    ASSERT_TRUE(call(player_interface, "SetPosition", [](sd_bus_message* m) {
        sd_bus_message_append(m, "ox", track_id(2).c_str(), std::int64_t{5'000'000});
    }).ok());
    ASSERT_TRUE(call(player_interface, "SetPosition", [](sd_bus_message* m) {
        sd_bus_message_append(m, "ox", track_id(1).c_str(), std::int64_t{31'000'000});
    }).ok());
    EXPECT_FALSE(seeked.wait_for(1, 500ms));
    EXPECT_EQ(property(player_interface, "Position"), before);
}

TEST_F(PlayerBusTest, ATrackThatEndsGivesWayToTheNextOnItsOwn)
{
    start_player({"Short|Ann Aro|Dawn|1", "Long|Ann Aro|Dawn|600"});
    ASSERT_TRUE(call(player_interface, "Play").ok());
    EXPECT_TRUE(property_becomes(player_interface, "CanGoPrevious", "<b true>"));
    EXPECT_EQ(property(player_interface, "PlaybackStatus"), "<s \"Playing\">");
}

TEST_F(PlayerBusTest, TheLastTrackEndingStopsPlayback)
{
    start_player({"Short|Ann Aro|Dawn|1"});
    ASSERT_TRUE(call(player_interface, "Play").ok());
    EXPECT_TRUE(property_becomes(player_interface, "PlaybackStatus", "<s \"Stopped\">"));
    EXPECT_EQ(property(player_interface, "Position"), "<x 0>");
}

TEST_F(PlayerBusTest, ARateOutsideTheRangeOrAnUnknownLoopStatusIsRefused)
{
    start_player();
    for (double rate : {0.25, 2.5, -1.0}) {
        CallResult const refused = set_property(player_interface, "Rate",
            [rate](sd_bus_message* m) { sd_bus_message_append(m, "v", "d", rate); });
        EXPECT_EQ(refused.error_name, invalid_args) << rate;
    }
    CallResult const loop = set_property(player_interface, "LoopStatus",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "s", "Forever"); });
    EXPECT_EQ(loop.error_name, invalid_args);
    EXPECT_EQ(property(player_interface, "Rate"), "<d 1>");
    EXPECT_EQ(property(player_interface, "LoopStatus"), "<s \"None\">");
}

TEST_F(PlayerBusTest, ARateOfZeroPausesAndKeepsTheRateThatStood)
{
    start_player();
    ASSERT_TRUE(call(player_interface, "Play").ok());
    ASSERT_TRUE(set_property(player_interface, "Rate", [](sd_bus_message* m) {
        sd_bus_message_append(m, "v", "d", 1.5);
    }).ok());
    ASSERT_TRUE(set_property(player_interface, "Rate", [](sd_bus_message* m) {
        sd_bus_message_append(m, "v", "d", 0.0);
    }).ok());
    EXPECT_TRUE(property_becomes(player_interface, "PlaybackStatus", "<s \"Paused\">"));
    EXPECT_TRUE(property_becomes(player_interface, "Rate", "<d 1.5>"));
}

TEST_F(PlayerBusTest, OpenUriRefusesAnUnsupportedScheme)
{
    start_player();
    CallResult const refused = call(player_interface, "OpenUri",
        [](sd_bus_message* m) { sd_bus_message_append(m, "s", "http://example.org/stream.ogg"); });
    EXPECT_EQ(refused.error_name, invalid_args);
    EXPECT_EQ(property(player_interface, "PlaybackStatus"), "<s \"Stopped\">");
}

TEST_F(PlayerBusTest, QuitIsAnsweredAndEndsThePlayer)
{
    start_player();
    CallResult const quit = call(root_interface, "Quit");
    EXPECT_TRUE(quit.ok()) << quit.error_name << ": " << quit.error_message;
    auto const status = service->wait(10s);
    ASSERT_TRUE(status.has_value()) << "tarvek-player did not end after Quit";
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
}

TEST(PlayerCommandLineTest, ABadTrackOrOptionEndsWithStatus2AndOneLine)
{
    for (std::vector<std::string> const& arguments :
        std::vector<std::vector<std::string>>{{"--track", "Title|Artist|Album"},
            {"--track", "Title|Artist|Album|0"}, {"--volume", "1"}, {"--name"}}) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        auto const [status, errors] = run_player_to_exit(arguments);
        EXPECT_EQ(status, 2);
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
    }
}

} // namespace
} // namespace tarvek::test::player
