// SPDX-License-Identifier: LGPL-2.1-or-later
// The two MPRIS interfaces of the player, as media clients (playerctl, desktop shells)
// expect them at /org/mpris/MediaPlayer2: org.mpris.MediaPlayer2, the application, and
// org.mpris.MediaPlayer2.Player, the playback. Names, types and behaviour follow the
// published MPRIS 2 interfaces.
//
// Threads. Both run on the player's executor, the executor of the FDPoller given to Player
// (a service worker's loop); every handler, the position timer and the follow-up of a
// client's write run on that loop's thread, which alone touches the Playback model. Stop
// that loop before the object that holds them goes: the timer's handler refers to the
// Player.
#pragma once

#include "playback.hpp"

#include <tarvek/tarvek.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace player {

inline tarvek::ObjectPath const object_path{"/org/mpris/MediaPlayer2"};
inline std::string const bus_name_prefix = "org.mpris.MediaPlayer2.";

// The id of a track, as the bus names it (mpris:trackid, SetPosition's TrackId).
tarvek::ObjectPath track_id(Track const& track);

// MPRIS metadata, a{sv}: names from the MPRIS and xesam vocabularies, and their values.
using Metadata = std::map<std::string, tarvek::Variant>;
// The metadata of `track`, the `number`-th of the playlist (from 1).
Metadata metadata_of(Track const& track, std::int32_t number);

class MediaPlayer : public tarvek::provider::Interface {
public:
    // `on_quit` runs on the player's thread when a client calls Quit; it must only ask the
    // service to end, since the reply is still to be sent.
    explicit MediaPlayer(std::function<void()> on_quit);

    Property<bool> can_quit{*this, "CanQuit", true, Access::read_only};
    Property<bool> can_raise{*this, "CanRaise", false, Access::read_only};
    Property<bool> has_track_list{*this, "HasTrackList", false, Access::read_only};
    Property<std::string> identity{*this, "Identity", "Tarvek Player", Access::read_only};
    Property<std::string> desktop_entry{*this, "DesktopEntry", "tarvek-player", Access::read_only};
    Property<std::vector<std::string>> supported_uri_schemes{
        *this, "SupportedUriSchemes", {"file"}, Access::read_only};
    Property<std::vector<std::string>> supported_mime_types{*this, "SupportedMimeTypes",
        {"audio/flac", "audio/mpeg", "audio/ogg", "audio/x-wav"}, Access::read_only};

    Method raise{*this, "Raise", &MediaPlayer::do_raise};
    Method quit{*this, "Quit", &MediaPlayer::do_quit};

private:
    // The player has no window to bring forward (CanRaise is false).
    void do_raise() { }
    void do_quit() { on_quit_(); }

    std::function<void()> on_quit_;
};

class Player : public tarvek::provider::Interface {
public:
    static constexpr double minimum_rate_value = 0.5;
    static constexpr double maximum_rate_value = 2.0;
    // While playing, Position is brought up to date this often: a client reads it and
    // counts on from there by the rate, so it needs no finer steps.
    static constexpr std::chrono::seconds position_refresh{1};

    Player(tarvek::common::FDPoller& loop, Playback playback);
    ~Player() override;

    Property<std::string> playback_status{*this, "PlaybackStatus", "Stopped", Access::read_only};
    Property<std::string> loop_status{*this, "LoopStatus", "None"};
    Property<double> rate{*this, "Rate", 1.0, Access::read_write, {{minimum_rate_value, maximum_rate_value}}};
    Property<bool> shuffle{*this, "Shuffle", false};
    // The current track: mpris:trackid, mpris:length, xesam:title, xesam:artist, ...
    Property<Metadata> metadata{*this, "Metadata", {}, Access::read_only};
    Property<double> volume{*this, "Volume", 1.0};
    // Published without change signals: clients compute the position from Rate and Seeked.
    Property<std::int64_t> position{*this, "Position", 0, Access::read_only, Change::none};
    Property<double> minimum_rate{*this, "MinimumRate", minimum_rate_value, Access::read_only};
    Property<double> maximum_rate{*this, "MaximumRate", maximum_rate_value, Access::read_only};
    Property<bool> can_go_next{*this, "CanGoNext", false, Access::read_only};
    Property<bool> can_go_previous{*this, "CanGoPrevious", false, Access::read_only};
    Property<bool> can_play{*this, "CanPlay", true, Access::read_only};
    Property<bool> can_pause{*this, "CanPause", true, Access::read_only};
    Property<bool> can_seek{*this, "CanSeek", true, Access::read_only};
    Property<bool> can_control{*this, "CanControl", true, Access::read_only, Change::none};

    // The new position after a jump within the track (Seek, SetPosition).
    Signal<std::int64_t> seeked{*this, "Seeked", {"Position"}};

    Method next{*this, "Next", &Player::do_next};
    Method previous{*this, "Previous", &Player::do_previous};
    Method pause{*this, "Pause", &Player::do_pause};
    Method play_pause{*this, "PlayPause", &Player::do_play_pause};
    Method stop{*this, "Stop", &Player::do_stop};
    Method play{*this, "Play", &Player::do_play};
    Method seek{*this, "Seek", &Player::do_seek, {.in = {"Offset"}}};
    Method set_position{*this, "SetPosition", &Player::do_set_position, {.in = {"TrackId", "Position"}}};
    Method open_uri{*this, "OpenUri", &Player::do_open_uri, {.in = {"Uri"}}};

protected:
    bool validate(Values const& v) const override;
    void on_changed(Values const& v, Changed const& changed) override;

private:
    void do_next();
    void do_previous();
    void do_pause();
    void do_play_pause();
    void do_stop();
    void do_play();
    void do_seek(std::int64_t offset);
    void do_set_position(tarvek::ObjectPath track, std::int64_t position);
    void do_open_uri(std::string uri);

    // Takes a client's write of Rate, LoopStatus or Volume into the model.
    void take_settings();
    // The timer: a track that ended, or the position to refresh.
    void on_timer();
    // Commits everything the model decides in one change, then sets the timer.
    void publish();
    void arm(Clock::time_point now);

    tarvek::common::FDPoller& loop_;
    Playback playback_;
    int timer_fd_;
};

} // namespace player
