// SPDX-License-Identifier: LGPL-2.1-or-later
// The one way the testing library opens a client connection to a bus address.
#pragma once

#include <tarvek/common/exceptions.hpp>
#include <tarvek/testing/private_bus.hpp>

#include <boost/throw_exception.hpp>

#include <systemd/sd-bus.h>

#include <string>

namespace tarvek::test::impl {

inline sd_bus* open_connection(std::string const& address)
{
    sd_bus* bus = nullptr;
    int r = sd_bus_new(&bus);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "sd_bus_new failed"));
    BusPtr owned(bus);
    if ((r = sd_bus_set_address(bus, address.c_str())) < 0)
        boost::throw_exception(tarvek::system_error(-r, "sd_bus_set_address failed for " + address));
    if ((r = sd_bus_set_bus_client(bus, 1)) < 0)
        boost::throw_exception(tarvek::system_error(-r, "sd_bus_set_bus_client failed"));
    if ((r = sd_bus_start(bus)) < 0)
        boost::throw_exception(tarvek::system_error(-r, "cannot connect to " + address));
    return owned.release();
}

} // namespace tarvek::test::impl
