// SPDX-License-Identifier: LGPL-2.1-or-later
#include "mpris.hpp"

#include <boost/throw_exception.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <sys/timerfd.h>
#include <unistd.h>

namespace player {

namespace {

// "Fourth%20Wall.ogg" -> "Fourth Wall.ogg"; a '%' without two hex digits stays as it is.
std::string percent_decoded(std::string const& text)
{
    auto const hex = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 && hex(text[i + 2]) >= 0) {
            decoded += static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2]));
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

} // namespace

tarvek::ObjectPath track_id(Track const& track)
{
    return tarvek::ObjectPath("/org/tarvek/player/track/" + std::to_string(track.number));
}

Metadata metadata_of(Track const& track, std::int32_t number)
{
    Metadata metadata{
        {"mpris:trackid", track_id(track)},
        {"mpris:length", std::int64_t{track.length.count()}},
        {"xesam:title", track.title},
        {"xesam:artist", track.artists},
        {"xesam:album", track.album},
        {"xesam:trackNumber", number},
    };
    if (!track.uri.empty())
        metadata.emplace("xesam:url", track.uri);
    return metadata;
}

MediaPlayer::MediaPlayer(std::function<void()> on_quit)
    : Interface("org.mpris.MediaPlayer2")
    , on_quit_(std::move(on_quit))
{
}

Player::Player(tarvek::common::FDPoller& loop, Playback playback)
    : Interface("org.mpris.MediaPlayer2.Player")
    , loop_(loop)
    , playback_(std::move(playback))
    , timer_fd_(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC))
{
    if (timer_fd_ < 0)
        boost::throw_exception(tarvek::system_error(errno, "timerfd_create failed"));
    loop_.add(timer_fd_, POLLIN, [this](pollfd&) { on_timer(); });
    publish();
}

Player::~Player()
{
    ::close(timer_fd_);
}

bool Player::validate(Values const& v) const
{
    // A rate of 0 is a request to pause (take_settings); any other rate stays in range.
    double const r = v[rate];
    bool const rate_ok = r == 0.0 || (r >= minimum_rate_value && r <= maximum_rate_value);
    return rate_ok && std::isfinite(v[volume]) && loop_from_string(v[loop_status]).has_value();
}

void Player::on_changed(Values const&, Changed const& changed)
{
    // A client's write of these changes the model too, and the model may then change other
    // properties; that takes a commit of its own, which cannot be made under the lock held
    // here. Only writes change them (publish leaves them alone unless it corrects one),
    // so this does not feed itself.
    if (changed.contains(rate) || changed.contains(loop_status) || changed.contains(volume))
        tarvek::detail::executors::Injector(loop_.executor()).submit([this] { take_settings(); });
}

void Player::take_settings()
{
    auto const now = Clock::now();
    double const r = rate.get();
    if (r == 0.0)
        playback_.pause(now); // publish puts the rate back as it was
    else if (r != playback_.rate())
        playback_.set_rate(r, now);
    playback_.set_loop(loop_from_string(loop_status.get()).value_or(Loop::none));
    publish();
}

void Player::do_next()
{
    if (!playback_.can_go_next())
        return;
    playback_.next(Clock::now());
    publish();
}

void Player::do_previous()
{
    if (!playback_.can_go_previous())
        return;
    playback_.previous(Clock::now());
    publish();
}

void Player::do_pause()
{
    playback_.pause(Clock::now());
    publish();
}

void Player::do_play_pause()
{
    playback_.play_pause(Clock::now());
    publish();
}

void Player::do_stop()
{
    playback_.stop();
    publish();
}

void Player::do_play()
{
    playback_.play(Clock::now());
    publish();
}

void Player::do_seek(std::int64_t offset)
{
    auto const now = Clock::now();
    bool const jumped = playback_.seek(Microseconds(offset), now);
    publish();
    if (jumped)
        seeked.emit(playback_.position(now).count());
}

void Player::do_set_position(tarvek::ObjectPath track, std::int64_t position)
{
    // A request for a track that is no longer current is stale: ignore it.
    if (track != track_id(playback_.current()))
        return;
    auto const now = Clock::now();
    if (!playback_.set_position(Microseconds(position), now))
        return;
    publish();
    seeked.emit(playback_.position(now).count());
}

void Player::do_open_uri(std::string uri)
{
    std::string const scheme = "file://";
    if (!uri.starts_with(scheme) || uri.size() == scheme.size())
        boost::throw_exception(tarvek::invalid_argument("Unsupported URI: " + uri));
    // Nothing is read: the file's name is the title, and every opened track is three
    // minutes long.
    auto title = percent_decoded(uri.substr(uri.find_last_of('/') + 1));
    if (auto const dot = title.find_last_of('.'); dot != std::string::npos && dot > 0)
        title.erase(dot);
    playback_.open(Track{title.empty() ? uri : title, {}, "", std::chrono::minutes(3), uri, 0}, Clock::now());
    publish();
}

void Player::on_timer()
{
    std::uint64_t expirations = 0;
    (void)::read(timer_fd_, &expirations, sizeof expirations);
    publish();
}

void Player::publish()
{
    auto const now = Clock::now();
    playback_.advance(now);
    update([&](Values& v) {
        v.set(playback_status, std::string(to_string(playback_.status())));
        v.set(position, playback_.position(now).count());
        v.set(metadata, metadata_of(playback_.current(), static_cast<std::int32_t>(playback_.index() + 1)));
        v.set(can_go_next, playback_.can_go_next());
        v.set(can_go_previous, playback_.can_go_previous());
        // Corrections of what a client wrote: a rate of 0 has paused playback and gives
        // way to the rate that stood, and a negative volume means silence.
        if (v[rate] == 0.0)
            v.set(rate, playback_.rate());
        if (v[volume] < 0.0)
            v.set(volume, 0.0);
    });
    arm(now);
}

void Player::arm(Clock::time_point now)
{
    itimerspec setting{};
    if (auto const left = playback_.time_to_end(now)) {
        // At least a microsecond: a zero it_value would disarm the timer.
        auto const wait = std::clamp<Clock::duration>(*left, std::chrono::microseconds(1), position_refresh);
        auto const ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wait).count();
        setting.it_value.tv_sec = ns / 1000000000;
        setting.it_value.tv_nsec = ns % 1000000000;
    }
    ::timerfd_settime(timer_fd_, 0, &setting, nullptr);
}

} // namespace player
