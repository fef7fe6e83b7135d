// SPDX-License-Identifier: LGPL-2.1-or-later
// The playback model of tarvek-player on a clock of the test's own: positions, the status
// after each command, the ends of the playlist with and without looping, seeks, the rate,
// and how a track given on the command line is read.
#include "player/playback.hpp"

#include <tarvek/common/exceptions.hpp>

#include <gtest/gtest.h>

namespace player {
namespace {

using namespace std::chrono_literals;

Track track(std::string title, Microseconds length)
{
    return Track{std::move(title), {"Artist"}, "Album", length, "", 0};
}

// Three tracks of 30, 40 and 50 seconds, and a clock that starts at an arbitrary point.
class PlaybackTest : public ::testing::Test {
protected:
    Playback playback{{track("one", 30s), track("two", 40s), track("three", 50s)}};
    Clock::time_point const t0 = Clock::time_point() + 1000s;
};

TEST_F(PlaybackTest, StartsStoppedAtTheFirstTrack)
{
    EXPECT_EQ(playback.status(), Status::stopped);
    EXPECT_EQ(playback.index(), 0U);
    EXPECT_EQ(playback.position(t0 + 5s), 0s);
    EXPECT_FALSE(playback.time_to_end(t0).has_value());
}

TEST_F(PlaybackTest, NumbersTheTracksFromOne)
{
    EXPECT_EQ(playback.tracks().at(0).number, 1U);
    EXPECT_EQ(playback.tracks().at(2).number, 3U);
}

TEST_F(PlaybackTest, PositionAdvancesWithTheClockOnlyWhilePlaying)
{
    playback.play(t0);
    EXPECT_EQ(playback.position(t0 + 7s), 7s);
    playback.pause(t0 + 7s);
    EXPECT_EQ(playback.status(), Status::paused);
    EXPECT_EQ(playback.position(t0 + 20s), 7s);
    playback.play(t0 + 20s);
    EXPECT_EQ(playback.position(t0 + 23s), 10s);
}

TEST_F(PlaybackTest, PlayPauseTogglesAndStopReturnsToTheStart)
{
    playback.play_pause(t0);
    EXPECT_EQ(playback.status(), Status::playing);
    playback.play_pause(t0 + 4s);
    EXPECT_EQ(playback.status(), Status::paused);
    EXPECT_EQ(playback.position(t0 + 9s), 4s);
    playback.stop();
    EXPECT_EQ(playback.status(), Status::stopped);
    EXPECT_EQ(playback.position(t0 + 9s), 0s);
    playback.play(t0 + 10s);
    EXPECT_EQ(playback.position(t0 + 12s), 2s);
}

TEST_F(PlaybackTest, NextAndPreviousStartTheTrackAndKeepTheStatus)
{
    playback.play(t0);
    playback.next(t0 + 5s);
    EXPECT_EQ(playback.index(), 1U);
    EXPECT_EQ(playback.status(), Status::playing);
    EXPECT_EQ(playback.position(t0 + 6s), 1s);
    playback.pause(t0 + 6s);
    playback.previous(t0 + 8s);
    EXPECT_EQ(playback.index(), 0U);
    EXPECT_EQ(playback.status(), Status::paused);
    EXPECT_EQ(playback.position(t0 + 9s), 0s);
}

TEST_F(PlaybackTest, WithoutLoopingTheEndsOfThePlaylistStopPlayback)
{
    EXPECT_FALSE(playback.can_go_previous());
    EXPECT_TRUE(playback.can_go_next());
    playback.play(t0);
    playback.next(t0);
    playback.next(t0);
    EXPECT_EQ(playback.index(), 2U);
    EXPECT_FALSE(playback.can_go_next());
    playback.next(t0 + 1s);
    EXPECT_EQ(playback.status(), Status::stopped);
    EXPECT_EQ(playback.index(), 2U);
}

TEST_F(PlaybackTest, APlaylistLoopWrapsAroundBothWays)
{
    playback.set_loop(Loop::playlist);
    EXPECT_TRUE(playback.can_go_previous());
    playback.previous(t0);
    EXPECT_EQ(playback.index(), 2U);
    playback.next(t0);
    EXPECT_EQ(playback.index(), 0U);
}

TEST_F(PlaybackTest, ATrackThatEndsGivesWayToTheNextAtItsEndTime)
{
    playback.play(t0);
    EXPECT_FALSE(playback.advance(t0 + 29s));
    ASSERT_EQ(playback.time_to_end(t0 + 29s), Clock::duration(1s));
    EXPECT_TRUE(playback.advance(t0 + 32s));
    EXPECT_EQ(playback.index(), 1U);
    EXPECT_EQ(playback.status(), Status::playing);
    // The 2 s past the end of the first track belong to the second.
    EXPECT_EQ(playback.position(t0 + 32s), 2s);
}

TEST_F(PlaybackTest, TheLastTrackEndingWithoutLoopingStopsPlayback)
{
    playback.next(t0);
    playback.next(t0);
    playback.play(t0);
    EXPECT_TRUE(playback.advance(t0 + 51s));
    EXPECT_EQ(playback.status(), Status::stopped);
    EXPECT_EQ(playback.position(t0 + 51s), 0s);
}

TEST_F(PlaybackTest, ATrackLoopStartsTheTrackAgain)
{
    playback.set_loop(Loop::track);
    playback.play(t0);
    EXPECT_TRUE(playback.advance(t0 + 33s));
    EXPECT_EQ(playback.index(), 0U);
    EXPECT_EQ(playback.position(t0 + 33s), 3s);
}

TEST_F(PlaybackTest, AnAbsenceLongerThanThePlaylistEndsAfterOneRound)
{
    playback.set_loop(Loop::playlist);
    playback.play(t0);
    EXPECT_TRUE(playback.advance(t0 + 100000s));
    EXPECT_EQ(playback.status(), Status::playing);
}

TEST_F(PlaybackTest, SeekMovesWithinTheTrackAndClampsAtItsStart)
{
    playback.play(t0);
    EXPECT_TRUE(playback.seek(10s, t0 + 2s));
    EXPECT_EQ(playback.position(t0 + 2s), 12s);
    EXPECT_TRUE(playback.seek(-100s, t0 + 2s));
    EXPECT_EQ(playback.position(t0 + 2s), 0s);
}

TEST_F(PlaybackTest, SeekPastTheEndActsLikeNext)
{
    playback.play(t0);
    EXPECT_FALSE(playback.seek(31s, t0));
    EXPECT_EQ(playback.index(), 1U);
    EXPECT_EQ(playback.position(t0), 0s);
}

TEST_F(PlaybackTest, SeekAndSetPositionAreIgnoredWhenStopped)
{
    EXPECT_FALSE(playback.seek(5s, t0));
    EXPECT_FALSE(playback.set_position(5s, t0));
    EXPECT_EQ(playback.position(t0), 0s);
}

TEST_F(PlaybackTest, SetPositionOutsideTheTrackIsIgnored)
{
    playback.play(t0);
    playback.pause(t0 + 3s);
    EXPECT_FALSE(playback.set_position(-1s, t0 + 3s));
    EXPECT_FALSE(playback.set_position(31s, t0 + 3s));
    EXPECT_EQ(playback.position(t0 + 3s), 3s);
    EXPECT_TRUE(playback.set_position(20s, t0 + 3s));
    EXPECT_EQ(playback.position(t0 + 3s), 20s);
}

TEST_F(PlaybackTest, TheRateScalesTheTimePlayedFromItsChangeOn)
{
    playback.play(t0);
    playback.set_rate(2.0, t0 + 4s);
    EXPECT_EQ(playback.position(t0 + 6s), 8s);
    EXPECT_EQ(playback.time_to_end(t0 + 6s), Clock::duration(11s));
}

TEST_F(PlaybackTest, OpeningATrackAppendsItAndPlaysIt)
{
    playback.open(track("opened", 10s), t0);
    EXPECT_EQ(playback.index(), 3U);
    EXPECT_EQ(playback.current().number, 4U);
    EXPECT_EQ(playback.status(), Status::playing);
}

TEST(Playback, RefusesAnEmptyPlaylistAndATrackWithoutLength)
{
    EXPECT_THROW(Playback({}), tarvek::invalid_argument);
    EXPECT_THROW(Playback({track("none", 0s)}), tarvek::invalid_argument);
}

TEST(Playback, NamesStatusAndLoopAsTheyTravel)
{
    EXPECT_STREQ(to_string(Status::playing), "Playing");
    EXPECT_STREQ(to_string(Status::paused), "Paused");
    EXPECT_STREQ(to_string(Status::stopped), "Stopped");
    EXPECT_EQ(loop_from_string("Playlist"), Loop::playlist);
    EXPECT_EQ(loop_from_string("Track"), Loop::track);
    EXPECT_EQ(loop_from_string("None"), Loop::none);
    EXPECT_FALSE(loop_from_string("none").has_value());
}

TEST(Playback, ParsesATrackOfFourFields)
{
    auto const parsed = parse_track("Second Wind|Bo Berg, Cy Cole|Noon|40");
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->title, "Second Wind");
    EXPECT_EQ(parsed->artists, (std::vector<std::string>{"Bo Berg", "Cy Cole"}));
    EXPECT_EQ(parsed->album, "Noon");
    EXPECT_EQ(parsed->length, 40s);
    EXPECT_TRUE(parse_track("Untitled||Noon|5")->artists.empty());
}

TEST(Playback, RefusesAMalformedTrack)
{
    for (char const* text :
        {"", "Title", "Title|Artist|Album", "Title|Artist|Album|0", "Title|Artist|Album|x",
            "Title|Artist|Album|5|extra", "|Artist|Album|5", "Title|Artist|Album|-5"})
        EXPECT_FALSE(parse_track(text).has_value()) << text;
}

} // namespace
} // namespace player
