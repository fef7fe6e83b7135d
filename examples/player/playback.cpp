// SPDX-License-Identifier: LGPL-2.1-or-later
#include "playback.hpp"

#include <tarvek/common/exceptions.hpp>

#include <boost/throw_exception.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>

namespace player {

char const* to_string(Status status)
{
    switch (status) {
    case Status::playing:
        return "Playing";
    case Status::paused:
        return "Paused";
    case Status::stopped:
        break;
    }
    return "Stopped";
}

char const* to_string(Loop loop)
{
    switch (loop) {
    case Loop::track:
        return "Track";
    case Loop::playlist:
        return "Playlist";
    case Loop::none:
        break;
    }
    return "None";
}

std::optional<Loop> loop_from_string(std::string const& text)
{
    for (Loop loop : {Loop::none, Loop::track, Loop::playlist})
        if (text == to_string(loop))
            return loop;
    return std::nullopt;
}

std::optional<Track> parse_track(std::string const& text)
{
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t bar; (bar = text.find('|', start)) != std::string::npos; start = bar + 1)
        fields.push_back(text.substr(start, bar - start));
    fields.push_back(text.substr(start));
    if (fields.size() != 4 || fields[0].empty())
        return std::nullopt;

    unsigned seconds = 0;
    auto const& number = fields[3];
    auto const [end, error] = std::from_chars(number.data(), number.data() + number.size(), seconds);
    if (error != std::errc() || end != number.data() + number.size() || seconds == 0 || seconds > 24 * 3600)
        return std::nullopt;

    Track track{fields[0], {}, fields[2], std::chrono::seconds(seconds), "", 0};
    std::string const& artists = fields[1];
    for (std::size_t from = 0; from < artists.size();) {
        auto const comma = std::min(artists.find(", ", from), artists.size());
        track.artists.push_back(artists.substr(from, comma - from));
        from = comma + 2;
    }
    return track;
}

std::vector<Track> built_in_playlist()
{
    using std::chrono::seconds;
    return {
        {"Morning Tide", {"The Harbour Lights"}, "Coastlines", seconds(213), "", 0},
        {"Paper Kites", {"Ada Lind", "Jon Berg"}, "Coastlines", seconds(187), "", 0},
        {"Slow Signal", {"The Harbour Lights"}, "Night Shift", seconds(254), "", 0},
        {"Last Ferry", {"Mira Sol"}, "Night Shift", seconds(301), "", 0},
    };
}

Playback::Playback(std::vector<Track> tracks)
    : tracks_(std::move(tracks))
{
    if (tracks_.empty())
        boost::throw_exception(tarvek::invalid_argument("The playlist is empty"));
    unsigned number = 0;
    for (auto& track : tracks_) {
        if (track.length <= Microseconds::zero())
            boost::throw_exception(tarvek::invalid_argument("A track has no length: " + track.title));
        track.number = ++number;
    }
}

Microseconds Playback::position(Clock::time_point now) const
{
    if (status_ == Status::stopped)
        return Microseconds::zero();
    auto position = anchor_position_;
    if (status_ == Status::playing && now > anchor_time_) {
        auto const elapsed = std::chrono::duration_cast<Microseconds>(now - anchor_time_);
        position += Microseconds(
            static_cast<Microseconds::rep>(std::llround(static_cast<double>(elapsed.count()) * rate_)));
    }
    return std::min(position, current().length);
}

std::optional<Clock::duration> Playback::time_to_end(Clock::time_point now) const
{
    if (status_ != Status::playing)
        return std::nullopt;
    auto const left = current().length - position(now);
    return std::chrono::duration_cast<Clock::duration>(
        Microseconds(static_cast<Microseconds::rep>(std::ceil(static_cast<double>(left.count()) / rate_))));
}

bool Playback::can_go_next() const noexcept
{
    return index_ + 1 < tracks_.size() || loop_ == Loop::playlist;
}

bool Playback::can_go_previous() const noexcept
{
    return index_ > 0 || loop_ == Loop::playlist;
}

void Playback::play(Clock::time_point now)
{
    if (status_ == Status::playing)
        return;
    anchor(position(now), now);
    status_ = Status::playing;
}

void Playback::pause(Clock::time_point now)
{
    if (status_ != Status::playing)
        return;
    anchor(position(now), now);
    status_ = Status::paused;
}

void Playback::play_pause(Clock::time_point now)
{
    if (status_ == Status::playing)
        pause(now);
    else
        play(now);
}

void Playback::stop()
{
    status_ = Status::stopped;
    anchor_position_ = Microseconds::zero();
}

void Playback::next(Clock::time_point now)
{
    if (index_ + 1 < tracks_.size())
        go_to(index_ + 1, now);
    else if (loop_ == Loop::playlist)
        go_to(0, now);
    else
        stop();
}

void Playback::previous(Clock::time_point now)
{
    if (index_ > 0)
        go_to(index_ - 1, now);
    else if (loop_ == Loop::playlist)
        go_to(tracks_.size() - 1, now);
    else
        stop();
}

bool Playback::seek(Microseconds offset, Clock::time_point now)
{
    if (status_ == Status::stopped)
        return false;
    auto const target = std::max(position(now) + offset, Microseconds::zero());
    if (target >= current().length) {
        next(now);
        return false;
    }
    anchor(target, now);
    return true;
}

bool Playback::set_position(Microseconds position, Clock::time_point now)
{
    if (status_ == Status::stopped || position < Microseconds::zero() || position > current().length)
        return false;
    anchor(position, now);
    return true;
}

void Playback::open(Track track, Clock::time_point now)
{
    track.number = tracks_.back().number + 1;
    tracks_.push_back(std::move(track));
    go_to(tracks_.size() - 1, now);
    status_ = Status::playing;
}

void Playback::set_rate(double rate, Clock::time_point now)
{
    // Re-anchor first, so that the time played so far keeps the old rate.
    anchor(position(now), now);
    rate_ = rate;
}

bool Playback::advance(Clock::time_point now)
{
    bool changed = false;
    // A long absence (a suspended machine) may have run through several tracks; stop
    // after one round of the playlist, enough for any answer the bus can see.
    for (std::size_t round = 0; round <= tracks_.size(); ++round) {
        if (status_ != Status::playing || position(now) < current().length)
            break;
        // The track ended at this point of the clock; what is left of `now` belongs to the
        // next one.
        auto const end_time = anchor_time_ + *time_to_end(anchor_time_);
        changed = true;
        if (loop_ == Loop::track) {
            anchor(Microseconds::zero(), end_time);
        } else if (index_ + 1 < tracks_.size() || loop_ == Loop::playlist) {
            index_ = (index_ + 1) % tracks_.size();
            anchor(Microseconds::zero(), end_time);
        } else {
            stop();
        }
    }
    return changed;
}

void Playback::anchor(Microseconds position, Clock::time_point now) noexcept
{
    anchor_position_ = position;
    anchor_time_ = now;
}

void Playback::go_to(std::size_t index, Clock::time_point now)
{
    index_ = index;
    anchor(Microseconds::zero(), now);
}

} // namespace player
