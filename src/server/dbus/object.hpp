// SPDX-License-Identifier: LGPL-2.1-or-later
// dbus::Object: the server's view of one published object. It owns the provider's
// glue::IObject, the sd-bus registrations at its path (the object callback that takes every
// Set of org.freedesktop.DBus.Properties away from sd-bus, one vtable per interface, and
// com.omno.ExtendedProperties), and a copy of the server's injector that its interfaces
// refer to.
//
// Runs on the thread that serves the bus only. It is the user data of its callbacks, so it
// never moves; members end in reverse order, so no registration outlives what its
// callbacks use. Requests in flight hold no pointer to it.
#pragma once

#include "server/dbus/extended_properties.hpp"
#include "server/dbus/interface.hpp"
#include "server/dbus/slot_deleter.hpp"

#include <tarvek/common/const_string.hpp>
#include <tarvek/common/object_path.hpp>
#include <tarvek/executors/injector.hpp>
#include <tarvek/glue/interface.hpp>

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace tarvek::common {
class Vrel;
} // namespace tarvek::common

namespace tarvek::server::dbus {

class Object {
public:
    // Raises tarvek::system_error "Could not add sd_dbus object", and what building an
    // Interface or the ExtendedProperties raises. An interface whose name stands twice is
    // kept once, the first.
    Object(detail::executors::Injector injector, sd_bus* bus, std::unique_ptr<glue::IObject> object,
        ObjectPath const& path, common::Vrel& vrel);
    Object(Object const&) = delete;
    Object& operator=(Object const&) = delete;
    ~Object();

    // Raises tarvek::unknown_interface "Object <path>: No such interface: <name>".
    Interface& get_dbus_interface(ConstString name) const;
    int call_set_property(sd_bus_message* message, sd_bus_error* error);

    ObjectPath const& object_path() const noexcept { return path; }
    // The names of the interfaces that this object registers, in the order of
    // registration: com.omno.ExtendedProperties, then the provider's, each once.
    std::vector<std::string> interface_names() const;

private:
    static int callback(sd_bus_message* message, void* userdata, sd_bus_error* error);
    // The work of the object callback, inside its guard.
    int intercept(sd_bus_message* message, sd_bus_error* error);

    ObjectPath path;
    std::unique_ptr<glue::IObject> object;
    SlotPtr slot;
    std::unordered_map<ConstString, std::unique_ptr<Interface>> interfaces;
    std::unique_ptr<ExtendedProperties> extended_properties;
    detail::executors::Injector injector;
};

} // namespace tarvek::server::dbus
