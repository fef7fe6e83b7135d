// SPDX-License-Identifier: LGPL-2.1-or-later
// org.sample.Thermostat: a measured temperature, a target within 5..30 degrees, a mode,
// and a method that raises the target. Runs on the service's main executor: every handler
// is quick.
#pragma once

#include <tarvek/tarvek.hpp>

#include <string>

namespace thermostat {

class Thermostat : public tarvek::provider::Interface {
public:
    Thermostat()
        : Interface("org.sample.Thermostat")
    {
    }

    Property<double> temperature{*this, "Temperature", 20.5, Access::read_only};
    Property<double> target{*this, "Target", 21.0, Access::read_write, {{5.0, 30.0}}};
    Property<std::string> mode{*this, "Mode", "auto"};

    // Raises the target by `degrees` and answers the new target; a target beyond 30 is
    // refused with InvalidArgs, as a write of it would be.
    Method boost_target{*this, "Boost", &Thermostat::raise};

protected:
    bool validate(Values const& v) const override
    {
        return v[target] >= 5.0 && v[target] <= 30.0
            && (v[mode] == "off" || v[mode] == "heat" || v[mode] == "auto");
    }

private:
    double raise(double degrees)
    {
        target.set(target.get() + degrees);
        return target.get();
    }
};

} // namespace thermostat
