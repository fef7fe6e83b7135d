// SPDX-License-Identifier: LGPL-2.1-or-later
// The interfaces of one lamp: org.sample.Lamp and org.sample.Info. Every handler runs on
// the lamps' shared executor thread.
#pragma once

#include "blink_timer.hpp"

#include <tarvek/tarvek.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace lamps {

using Color = std::tuple<double, double, double>;

class Lamp : public tarvek::provider::Interface {
public:
    Lamp(BlinkTimer& timer, unsigned number);
    ~Lamp() override;

    Property<bool> on{*this, "On", false};
    Property<std::uint32_t> level{*this, "Level", 0, Access::read_write, {{0U, 100U}}};
    Property<std::uint32_t> max_level{*this, "MaxLevel", 100, Access::read_write, {{0U, 100U}}};
    Property<std::string> label{*this, "Label", ""};
    Property<Color> color{*this, "Color", {1.0, 1.0, 1.0}, Access::read_write, {{{0.0, 0.0, 0.0}, {1.0, 1.0, 1.0}}}};
    Property<std::vector<std::string>> tags{*this, "Tags", {}};
    Property<std::map<std::string, std::string>> settings{*this, "Settings", {}};
    Property<std::string> serial{*this, "Serial", "", Access::read_only};
    Property<std::uint64_t> blink_count{*this, "BlinkCount", 0, Access::read_only};

    Signal<std::uint64_t> blinked{*this, "Blinked"};

    Method toggle{*this, "Toggle", &Lamp::do_toggle};
    Method blink{*this, "Blink", &Lamp::do_blink};
    Method sleep{*this, "Sleep", &Lamp::do_sleep};
    Method fail{*this, "Fail", &Lamp::do_fail};

protected:
    bool validate(Values const& v) const override;

private:
    bool do_toggle();
    void do_blink(Responder<std::uint64_t> reply, std::uint32_t times);
    void do_sleep(std::uint32_t milliseconds);
    void do_fail(std::string kind);

    BlinkTimer& timer_;
};

class Info : public tarvek::provider::Interface {
public:
    Info() : Interface("org.sample.Info") {}

    Property<std::string> model{*this, "Model", "Sample Lamp", Access::read_only};
    Property<std::string> firmware{*this, "Firmware", "1.0", Access::read_only};
};

} // namespace lamps
