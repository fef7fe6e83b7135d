// SPDX-License-Identifier: LGPL-2.1-or-later
// ExtendedProperties: the interface "com.omno.ExtendedProperties" that every object on the
// bus carries besides its own. Its first argument names a target interface of the same
// object; it offers atomic multi-writes ("Set", "SetMany", "Reset"), a consistent
// multi-read ("GetMany"), questions about defaults ("IsDefaulted", "GetDefault") and the
// published value ranges ("GetRanges", "GetAllRanges"). The Set of
// org.freedesktop.DBus.Properties is routed to call_set_property as well, so every write
// from the bus comes through here: all names are authorised first, then all values are
// decoded on the bus thread into a staged copy, and only the object's executor validates
// and commits, so that one refusal or one bad value applies nothing.
//
// Runs on the thread that serves the bus only. An instance belongs to its dbus::Object,
// which must outlive it; a pending write holds only a handle of its message and a copy of
// the server's injector.
#pragma once

#include "server/dbus/interface.hpp"

#include <tarvek/common/const_string.hpp>

#include <string>

namespace tarvek::server::dbus {

class Object;

class ExtendedProperties {
public:
    static ConstString const name;

    // Raises tarvek::system_error "ExtendedProperties: Could not register sd_bus_vtable".
    ExtendedProperties(sd_bus* bus, Object const& object);
    ExtendedProperties(ExtendedProperties const&) = delete;
    ExtendedProperties& operator=(ExtendedProperties const&) = delete;
    ~ExtendedProperties();

    // Raises tarvek::unknown_interface for a name that the object doesn't have.
    Interface& get_interface(std::string const& interface) const;

    // The write of one value, "ssv": from "Set" here and from the Set of
    // org.freedesktop.DBus.Properties. Returns what the sd-bus callback returns.
    int call_set_property(sd_bus_message* message, sd_bus_error* error);

private:
    Object const& object;
    sd_bus_slot* slot = nullptr;
};

} // namespace tarvek::server::dbus
