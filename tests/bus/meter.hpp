// SPDX-License-Identifier: LGPL-2.1-or-later
// Meter: the interface of the bus tests of several results, argument names, named errors
// and the caller. Handlers and validate run on the object's thread; what they saw of the
// caller is kept under a mutex for the test thread.
#pragma once

#include <tarvek/common/caller.hpp>
#include <tarvek/provider/interface.hpp>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>

namespace tarvek::test {

class Meter : public provider::Interface {
public:
    Meter()
        : Interface("org.sample.Meter")
    {
    }

    Property<std::int32_t> limit{*this, "Limit", 0};
    Signal<std::int32_t, std::string> crossed{*this, "Crossed", {"value", "direction"}};
    Signal<std::int32_t> ticked{*this, "Ticked"};
    // Two out arguments.
    Method bounds{*this, "Bounds",
        [](std::int32_t scale) {
            return Results<std::int32_t, std::string>{-scale, "high"};
        },
        {.in = {"scale"}, .out = {"low", "label"}}};
    // One struct with the same members.
    Method pair{*this, "Pair",
        [](std::int32_t scale) {
            return std::tuple<std::int32_t, std::string>{-scale, "high"};
        },
        {.in = {"scale"}, .out = {"pair"}}};
    // Without names.
    Method echo{*this, "Echo", [](std::int32_t value) { return value; }};
    // Raises a named_error of the client's choice, so a malformed name is tried too.
    Method refuse{*this, "Refuse",
        [](std::string name, std::string text) -> bool { throw tarvek::named_error(name, text); }};
    Method refuse_later{*this, "RefuseLater", [](Responder<> reply, std::string name, std::string text) {
                            reply.fail(tarvek::named_error(name, text));
                        }};
    // Answers with the caller that the handler sees.
    Method who{*this, "Who", &Meter::do_who, {.in = {}, .out = {"sender", "uid", "pid", "user"}}};

    std::optional<Caller> seen_by_validate() const
    {
        std::lock_guard lock(mutex_);
        return seen_by_validate_;
    }

protected:
    bool validate(Values const& values) const override
    {
        if (Caller const* const caller = current_caller()) {
            std::lock_guard lock(mutex_);
            seen_by_validate_ = *caller;
        }
        if (values[limit] < 0)
            throw tarvek::named_error("org.sample.Meter.Error.Negative", "The limit is below zero");
        return true;
    }

private:
    Results<std::string, std::uint32_t, std::int32_t, std::string> do_who()
    {
        Caller const* const caller = current_caller();
        if (!caller)
            return {"", 0, 0, ""};
        return {caller->sender, caller->uid, caller->pid, caller->user};
    }

    mutable std::mutex mutex_;
    mutable std::optional<Caller> seen_by_validate_;
};

} // namespace tarvek::test
