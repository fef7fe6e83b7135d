// SPDX-License-Identifier: LGPL-2.1-or-later
#include "lamp.hpp"

#include <boost/throw_exception.hpp>

#include <chrono>
#include <stdexcept>
#include <thread>

namespace lamps {

Lamp::Lamp(BlinkTimer& timer, unsigned number) : Interface("org.sample.Lamp"), timer_(timer)
{
    // Read-only for clients, but ours to set before the lamp is published.
    serial.set("LMP-" + std::to_string(number));
}

Lamp::~Lamp()
{
    // A blink still under way ends unanswered: its client learns that the request was lost.
    timer_.cancel(this);
}

bool Lamp::validate(Values const& v) const
{
    auto const [r, g, b] = v[color];
    auto const unit = [](double c) { return c >= 0.0 && c <= 1.0; };
    return v[level] <= v[max_level] && v[max_level] <= 100 && unit(r) && unit(g) && unit(b);
}

bool Lamp::do_toggle()
{
    on.set(!on.get());
    return on.get();
}

void Lamp::do_blink(Responder<std::uint64_t> reply, std::uint32_t times)
{
    // Answer later: the executor is free while the lamp blinks.
    timer_.after(std::chrono::milliseconds(10) * times, this, [this, reply, times]() mutable {
        try {
            auto const count = blink_count.get() + times;
            blink_count.set(count);
            blinked.emit(count);
            reply.reply(count);
        } catch (...) {
            // A lamp removed while it blinked can no longer commit; its caller still gets
            // an answer, the error that stopped it.
            if (!reply.answered())
                reply.fail(tarvek::capture_current_exception());
        }
    });
}

void Lamp::do_sleep(std::uint32_t milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void Lamp::do_fail(std::string kind)
{
    if (kind == "invalid")
        boost::throw_exception(tarvek::invalid_argument("requested failure"));
    if (kind == "validation")
        boost::throw_exception(tarvek::validation_failed("requested failure"));
    if (kind == "denied")
        boost::throw_exception(tarvek::access_denied("requested failure"));
    if (kind == "runtime")
        throw std::runtime_error("requested failure");
}

} // namespace lamps
