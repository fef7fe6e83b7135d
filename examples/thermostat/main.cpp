// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek-thermostat: one object with one interface, published as org.sample.Thermostat on
// the system bus (DBUS_SYSTEM_BUS_ADDRESS names another one). SIGINT and SIGTERM stop it
// with status 0; a taken name or a lost bus ends it with status 1.
#include "thermostat.hpp"

#include <iostream>

int main()
try {
    tarvek::server::Service service("org.sample.Thermostat", tarvek::server::Bus::system());
    service.add<thermostat::Thermostat>(tarvek::ObjectPath("/org/sample/Thermostat"));
    return service.run();
} catch (std::exception const& e) {
    std::cerr << "tarvek-thermostat: " << e.what() << '\n';
    return 1;
}
