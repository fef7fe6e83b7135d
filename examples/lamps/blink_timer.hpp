// SPDX-License-Identifier: LGPL-2.1-or-later
// One timer descriptor on the lamps' loop that runs callbacks at their deadlines, so that a
// blinking lamp waits without blocking the executor. Used only on the lamps' loop thread.
#pragma once

#include <tarvek/common/fd_poller.hpp>

#include <chrono>
#include <functional>
#include <map>

namespace lamps {

class BlinkTimer {
public:
    using Clock = std::chrono::steady_clock;

    explicit BlinkTimer(tarvek::common::FDPoller& loop);
    ~BlinkTimer();
    BlinkTimer(BlinkTimer const&) = delete;
    BlinkTimer& operator=(BlinkTimer const&) = delete;

    // Runs `callback` on the loop thread once `delay` has passed. `owner` names whose
    // callback it is, for cancel().
    void after(Clock::duration delay, void const* owner, std::function<void()> callback);
    // Drops the owner's pending callbacks unrun (a lamp that goes away).
    void cancel(void const* owner);

private:
    void fire();
    void arm();

    struct Entry {
        void const* owner;
        std::function<void()> callback;
    };
    int fd_;
    std::multimap<Clock::time_point, Entry> pending_;
};

} // namespace lamps
