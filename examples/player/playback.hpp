// SPDX-License-Identifier: LGPL-2.1-or-later
// The player's model, free of the bus: a playlist, the current track, the playback status
// and a position that advances with a clock while playing. The position is never counted
// up by a timer; it is an anchor (a position at a time point) and the rate, and every
// question about it names the present moment, so the model is exact whenever it is asked
// and tests can drive it with time points of their own. Not thread-safe: the player uses
// it on its own executor thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace player {

using Clock = std::chrono::steady_clock;
// Positions and lengths in microseconds, as they travel on the bus.
using Microseconds = std::chrono::microseconds;

struct Track {
    std::string title;
    std::vector<std::string> artists;
    std::string album;
    Microseconds length{0};
    std::string uri;
    // Stable for the life of the player: the number in the track's id.
    unsigned number = 0;
};

enum class Status { stopped, paused, playing };
enum class Loop { none, track, playlist };

// "Playing", "Paused", "Stopped" and "None", "Track", "Playlist", as they travel.
char const* to_string(Status status);
char const* to_string(Loop loop);
// nullopt for any other text.
std::optional<Loop> loop_from_string(std::string const& text);

// Parses "TITLE|ARTIST|ALBUM|SECONDS" (artists separated by ", "); nullopt when malformed.
std::optional<Track> parse_track(std::string const& text);
// The playlist used when none is given.
std::vector<Track> built_in_playlist();

class Playback {
public:
    // Raises tarvek::invalid_argument for an empty playlist or a track without length.
    explicit Playback(std::vector<Track> tracks);

    Status status() const noexcept { return status_; }
    Loop loop() const noexcept { return loop_; }
    double rate() const noexcept { return rate_; }
    std::size_t index() const noexcept { return index_; }
    Track const& current() const { return tracks_.at(index_); }
    std::vector<Track> const& tracks() const noexcept { return tracks_; }

    // The position at `now`, never past the track's end; 0 when stopped.
    Microseconds position(Clock::time_point now) const;
    // How long until the current track ends at the present rate; nullopt unless playing.
    std::optional<Clock::duration> time_to_end(Clock::time_point now) const;

    // Whether Next and Previous would change the track (the loop status decides at the
    // ends of the playlist).
    bool can_go_next() const noexcept;
    bool can_go_previous() const noexcept;

    void play(Clock::time_point now);
    void pause(Clock::time_point now);
    void play_pause(Clock::time_point now);
    void stop();
    // The next or previous track from its start, keeping the status; past an end of the
    // playlist without looping, playback stops.
    void next(Clock::time_point now);
    void previous(Clock::time_point now);
    // Moves by `offset`; before the start means the start, past the end means next().
    // Ignored when stopped. Returns true when the position jumped within the track.
    bool seek(Microseconds offset, Clock::time_point now);
    // Moves to `position` of the current track; ignored when stopped or out of the track.
    bool set_position(Microseconds position, Clock::time_point now);
    // Appends a track, makes it current and plays it.
    void open(Track track, Clock::time_point now);

    void set_rate(double rate, Clock::time_point now);
    void set_loop(Loop loop) noexcept { loop_ = loop; }

    // Takes what happened by `now`: a track that ended while playing gives way to the next
    // one (or starts again, or stops playback, as the loop status says). Returns true when
    // the track or the status changed.
    bool advance(Clock::time_point now);

private:
    void anchor(Microseconds position, Clock::time_point now) noexcept;
    void go_to(std::size_t index, Clock::time_point now);

    std::vector<Track> tracks_;
    std::size_t index_ = 0;
    Status status_ = Status::stopped;
    Loop loop_ = Loop::none;
    double rate_ = 1.0;
    // The position at anchor_time_; while playing it grows by the rate from there.
    Microseconds anchor_position_{0};
    Clock::time_point anchor_time_{};
};

} // namespace player
