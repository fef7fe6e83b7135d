// SPDX-License-Identifier: LGPL-2.1-or-later
#include "blink_timer.hpp"

#include <tarvek/common/exceptions.hpp>

#include <cerrno>
#include <cstdint>
#include <sys/timerfd.h>
#include <unistd.h>

namespace lamps {

BlinkTimer::BlinkTimer(tarvek::common::FDPoller& loop) : fd_(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC))
{
    if (fd_ < 0)
        throw tarvek::system_error(errno, "timerfd_create failed");
    loop.add(fd_, POLLIN, [this](pollfd&) { fire(); });
}

BlinkTimer::~BlinkTimer()
{
    ::close(fd_);
}

void BlinkTimer::after(Clock::duration delay, void const* owner, std::function<void()> callback)
{
    pending_.emplace(Clock::now() + delay, Entry{owner, std::move(callback)});
    arm();
}

void BlinkTimer::cancel(void const* owner)
{
    std::erase_if(pending_, [owner](auto const& entry) { return entry.second.owner == owner; });
    arm();
}

void BlinkTimer::fire()
{
    std::uint64_t expirations = 0;
    (void)::read(fd_, &expirations, sizeof expirations);
    auto const now = Clock::now();
    while (!pending_.empty() && pending_.begin()->first <= now) {
        auto callback = std::move(pending_.begin()->second.callback);
        pending_.erase(pending_.begin());
        try {
            callback();
        } catch (...) {
            // The timer must stay armed for the callbacks still pending, or their callers
            // would wait for an answer until some other blink came along.
            arm();
            throw;
        }
    }
    arm();
}

void BlinkTimer::arm()
{
    itimerspec setting{};
    if (!pending_.empty()) {
        auto const wait = std::max(pending_.begin()->first - Clock::now(), Clock::duration(std::chrono::microseconds(1)));
        auto const ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wait).count();
        setting.it_value.tv_sec = ns / 1000000000;
        setting.it_value.tv_nsec = ns % 1000000000;
    }
    ::timerfd_settime(fd_, 0, &setting, nullptr);
}

} // namespace lamps
