// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek-player driven by playerctl, the stock MPRIS command-line client, on the private
// bus as its session bus: it finds the player, reads and changes its status, moves between
// tracks, reads and moves the position, reads and sets the volume, the loop status and
// shuffle, shows the metadata plain and through format strings, opens a URI, and follows
// changes made by another client.
#include "examples/player_service.hpp"

#include <cstdlib>
#include <regex>
#include <string>
#include <thread>

#include <sys/wait.h>

namespace tarvek::test::player {
namespace {

// playerctl prints positions and volumes as "%f".
double number(std::string const& text)
{
    return std::strtod(text.c_str(), nullptr);
}

TEST_F(PlayerctlTest, ListsThePlayerByItsName)
{
    start_player();
    Output const listed = playerctl({"--list-all"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    // -p limits nothing for --list-all: the private bus has only this player.
    EXPECT_EQ(listed.out, std::string(player_name) + "\n");
}

TEST_F(PlayerctlTest, ReadsTheStatusOfAFreshPlayerAsStopped)
{
    start_player();
    Output const status = playerctl({"status"});
    EXPECT_EQ(status.status, 0) << status.err;
    EXPECT_EQ(status.out, "Stopped\n");
}

TEST_F(PlayerctlTest, PlayPauseAndStopChangeTheStatus)
{
    start_player();
    struct Step {
        char const* command;
        char const* status;
    };
    for (auto const& [command, expected] : {Step{"play", "Playing\n"}, Step{"pause", "Paused\n"},
             Step{"play-pause", "Playing\n"}, Step{"play-pause", "Paused\n"}, Step{"play", "Playing\n"},
             Step{"stop", "Stopped\n"}, Step{"play-pause", "Playing\n"}}) {
        SCOPED_TRACE(command);
        Output const done = playerctl({command});
        EXPECT_EQ(done.status, 0) << done.err;
        EXPECT_EQ(playerctl({"status"}).out, expected);
    }
}

TEST_F(PlayerctlTest, NextAndPreviousMoveThroughTheTracks)
{
    start_player();
    ASSERT_EQ(playerctl({"play"}).status, 0);
    EXPECT_EQ(property(player_interface, "CanGoPrevious"), "<b false>");

    EXPECT_EQ(playerctl({"next"}).status, 0);
    EXPECT_EQ(property(player_interface, "CanGoPrevious"), "<b true>");
    EXPECT_EQ(property(player_interface, "CanGoNext"), "<b true>");
    EXPECT_EQ(playerctl({"next"}).status, 0);
    EXPECT_EQ(property(player_interface, "CanGoNext"), "<b false>");
    EXPECT_EQ(playerctl({"status"}).out, "Playing\n");

    EXPECT_EQ(playerctl({"previous"}).status, 0);
    EXPECT_EQ(property(player_interface, "CanGoNext"), "<b true>");
    EXPECT_EQ(property(player_interface, "CanGoPrevious"), "<b true>");
    EXPECT_EQ(playerctl({"status"}).out, "Playing\n");
}

TEST_F(PlayerctlTest, NextAtTheLastTrackDoesNothingWithoutLooping)
{
    start_player();
    ASSERT_EQ(playerctl({"play"}).status, 0);
    ASSERT_EQ(playerctl({"next"}).status, 0);
    ASSERT_EQ(playerctl({"next"}).status, 0);
    // CanGoNext is false, so playerctl does not call Next, and the player plays on.
    playerctl({"next"});
    EXPECT_EQ(playerctl({"status"}).out, "Playing\n");
    EXPECT_EQ(property(player_interface, "CanGoNext"), "<b false>");
}

TEST_F(PlayerctlTest, APlaylistLoopSetByPlayerctlLetsNextWrapAround)
{
    start_player();
    ASSERT_EQ(playerctl({"play"}).status, 0);
    ASSERT_EQ(playerctl({"next"}).status, 0);
    ASSERT_EQ(playerctl({"next"}).status, 0);
    Output const set = playerctl({"loop", "Playlist"});
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(playerctl({"loop"}).out, "Playlist\n");
    // The model takes the new loop status on the player's thread, a moment after the write.
    EXPECT_TRUE(property_becomes(player_interface, "CanGoNext", "<b true>"));
    EXPECT_EQ(playerctl({"next"}).status, 0);
    EXPECT_EQ(property(player_interface, "CanGoPrevious"), "<b true>");
    EXPECT_EQ(property(player_interface, "Position").substr(0, 3), "<x ");
}

TEST_F(PlayerctlTest, ShuffleIsSetAndRead)
{
    start_player();
    EXPECT_EQ(playerctl({"shuffle"}).out, "Off\n");
    EXPECT_EQ(playerctl({"shuffle", "On"}).status, 0);
    EXPECT_EQ(playerctl({"shuffle"}).out, "On\n");
    EXPECT_EQ(property(player_interface, "Shuffle"), "<b true>");
}

TEST_F(PlayerctlTest, PositionAdvancesWhilePlayingAndStandsWhilePaused)
{
    start_player();
    EXPECT_EQ(number(playerctl({"position"}).out), 0.0);
    ASSERT_EQ(playerctl({"play"}).status, 0);
    // The player brings Position up to date every second while playing.
    std::this_thread::sleep_for(2500ms);
    double const playing = number(playerctl({"position"}).out);
    EXPECT_GE(playing, 1.0);
    EXPECT_LT(playing, 10.0);

    ASSERT_EQ(playerctl({"pause"}).status, 0);
    double const paused = number(playerctl({"position"}).out);
    EXPECT_GE(paused, playing);
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(number(playerctl({"position"}).out), paused);
}

TEST_F(PlayerctlTest, PositionMovesBySeekingForwardAndBack)
{
    start_player();
    ASSERT_EQ(playerctl({"play"}).status, 0);
    ASSERT_EQ(playerctl({"pause"}).status, 0);
    double const start = number(playerctl({"position"}).out);

    Output const forward = playerctl({"position", "10+"});
    EXPECT_EQ(forward.status, 0) << forward.err;
    EXPECT_NEAR(number(playerctl({"position"}).out), start + 10.0, 0.01);
    ASSERT_EQ(playerctl({"position", "4-"}).status, 0);
    EXPECT_NEAR(number(playerctl({"position"}).out), start + 6.0, 0.01);
}

TEST_F(PlayerctlTest, SeekingPastTheEndOfATrackGoesToTheNext)
{
    start_player();
    ASSERT_EQ(playerctl({"play"}).status, 0);
    ASSERT_EQ(playerctl({"position", "45+"}).status, 0);
    EXPECT_EQ(property(player_interface, "CanGoPrevious"), "<b true>");
    EXPECT_LT(number(playerctl({"position"}).out), 5.0);
}

TEST_F(PlayerctlTest, PositionSetsTheAbsolutePositionOfTheCurrentTrack)
{
    start_player();
    ASSERT_EQ(playerctl({"play"}).status, 0);
    ASSERT_EQ(playerctl({"pause"}).status, 0);
    // playerctl takes the track id from mpris:trackid and calls SetPosition.
    Output const set = playerctl({"position", "10"});
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(playerctl({"position"}).out, "10.000000\n");
    EXPECT_EQ(property(player_interface, "Position"), "<x 10000000>");
}

TEST_F(PlayerctlTest, MetadataListsTheCurrentTrack)
{
    start_player();
    Output const listed = playerctl({"metadata"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    for (char const* line : {R"(tarvektest\s+mpris:trackid\s+'/org/tarvek/player/track/1'\n)",
             R"(tarvektest\s+mpris:length\s+30000000\n)", R"(tarvektest\s+xesam:title\s+First Light\n)",
             R"(tarvektest\s+xesam:artist\s+Ann Aro\n)", R"(tarvektest\s+xesam:album\s+Dawn\n)"})
        EXPECT_TRUE(std::regex_search(listed.out, std::regex(line))) << line << " not in\n" << listed.out;
    EXPECT_EQ(playerctl({"metadata", "title"}).out, "First Light\n");
}

TEST_F(PlayerctlTest, MetadataFormatStringsShowTheTrack)
{
    start_player();
    EXPECT_EQ(playerctl({"metadata", "--format", "{{artist}} - {{title}}"}).out, "Ann Aro - First Light\n");
    EXPECT_EQ(playerctl({"metadata", "--format", "{{album}} {{duration(mpris:length)}}"}).out, "Dawn 0:30\n");
    ASSERT_EQ(playerctl({"next"}).status, 0);
    EXPECT_EQ(playerctl({"metadata", "--format", "{{artist}} - {{title}}"}).out,
        "Bo Berg, Cy Cole - Second Wind\n");
    EXPECT_EQ(playerctl({"metadata", "--format", "{{uc(status)}} {{xesam:trackNumber}}"}).out, "STOPPED 2\n");
}

TEST_F(PlayerctlTest, VolumeIsReadAndSet)
{
    start_player();
    EXPECT_EQ(playerctl({"volume"}).out, "1.000000\n");
    Output const set = playerctl({"volume", "0.25"});
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(playerctl({"volume"}).out, "0.250000\n");
    EXPECT_EQ(property(player_interface, "Volume"), "<d 0.25>");
    ASSERT_EQ(playerctl({"volume", "0.5+"}).status, 0);
    EXPECT_EQ(playerctl({"volume"}).out, "0.750000\n");
}

TEST_F(PlayerctlTest, AVolumeBelowZeroEndsAsSilence)
{
    start_player();
    ASSERT_EQ(playerctl({"volume", "0.2"}).status, 0);
    // playerctl sends 0.2 - 0.5; the player takes a negative volume as 0.
    ASSERT_EQ(playerctl({"volume", "0.5-"}).status, 0);
    EXPECT_TRUE(property_becomes(player_interface, "Volume", "<d 0>"));
    EXPECT_EQ(playerctl({"volume"}).out, "0.000000\n");
}

TEST_F(PlayerctlTest, OpenPlaysTheUriAsANewTrack)
{
    start_player();
    Output const opened = playerctl({"open", "file:///music/Fourth%20Wall.ogg"});
    EXPECT_EQ(opened.status, 0) << opened.err;
    EXPECT_EQ(playerctl({"status"}).out, "Playing\n");
    EXPECT_EQ(playerctl({"metadata", "--format", "{{title}} {{xesam:url}}"}).out,
        "Fourth Wall file:///music/Fourth%20Wall.ogg\n");
    EXPECT_EQ(property(player_interface, "CanGoPrevious"), "<b true>");
    EXPECT_EQ(property(player_interface, "CanGoNext"), "<b false>");
}

TEST_F(PlayerctlTest, FollowPrintsALineWhenAnotherClientChangesTheStatus)
{
    start_player();
    auto follow = playerctl_running({"--follow", "status"});
    EXPECT_EQ(follow->read_line(10s), "Stopped");

    ASSERT_TRUE(call(player_interface, "Play").ok());
    EXPECT_EQ(follow->read_line(10s), "Playing");
    ASSERT_TRUE(call(player_interface, "Pause").ok());
    EXPECT_EQ(follow->read_line(10s), "Paused");
    // A change of something that the format does not show prints nothing.
    ASSERT_TRUE(set_property(player_interface, "Volume", [](sd_bus_message* m) {
        sd_bus_message_append(m, "v", "d", 0.5);
    }).ok());
    ASSERT_TRUE(call(player_interface, "Stop").ok());
    EXPECT_EQ(follow->read_line(10s), "Stopped");
}

TEST_F(PlayerctlTest, FollowingMetadataPrintsTheNewTrackWhenAnotherClientGoesNext)
{
    start_player();
    auto follow = playerctl_running({"--follow", "metadata", "--format", "{{title}} ({{status}})"});
    EXPECT_EQ(follow->read_line(10s), "First Light (Stopped)");
    ASSERT_TRUE(call(player_interface, "Next").ok());
    EXPECT_EQ(follow->read_line(10s), "Second Wind (Stopped)");
    ASSERT_TRUE(call(player_interface, "Play").ok());
    EXPECT_EQ(follow->read_line(10s), "Second Wind (Playing)");
}

TEST_F(PlayerctlTest, FollowSeesThePlayerLeaveWhenItQuits)
{
    start_player();
    auto follow = playerctl_running({"--follow", "status"});
    EXPECT_EQ(follow->read_line(10s), "Stopped");
    ASSERT_TRUE(call(root_interface, "Quit").ok());
    auto const status = service->wait(10s);
    ASSERT_TRUE(status.has_value()) << "tarvek-player did not end after Quit";
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
    // playerctl prints an empty line when the player it follows goes away.
    EXPECT_EQ(follow->read_line(10s), "");
}

} // namespace
} // namespace tarvek::test::player
