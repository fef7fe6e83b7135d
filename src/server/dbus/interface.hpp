// SPDX-License-Identifier: LGPL-2.1-or-later
// dbus::Interface: one glue::IInterface on the bus. It builds the sd-bus vtable of the
// interface at run time, registers it at the object's path, and holds the three callbacks
// that sd-bus enters: the property getter, the refusing property setter (writes are taken
// away earlier by the object callback and go to com.omno.ExtendedProperties) and the
// method handler. It also emits PropertiesChanged and the interface's signals. Argument
// names go into the table where a method or signal offers glue::IArgumentNames; the method
// handler names the sender as the current tarvek::Caller while it hands the call over.
//
// Runs on the thread that serves the bus only. It is the user data of its callbacks, so it
// never moves: dbus::Object owns it through a std::unique_ptr. The glue::IInterface, the
// injector and the Vrel belong to the owning object and server and outlive it. A method
// call in flight holds a handle of its message and a copy of the injector, never a
// pointer to this object, so the interface may go before the call is answered.
#pragma once

#include "server/dbus/authority_checker.hpp"
#include "server/dbus/bus_arguments.hpp"
#include "server/dbus/slot_deleter.hpp"

#include <tarvek/common/const_string.hpp>
#include <tarvek/common/object_path.hpp>
#include <tarvek/executors/injector.hpp>
#include <tarvek/glue/interface.hpp>

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace tarvek::server::dbus {

class Interface {
public:
    // Raises tarvek::invalid_argument "dbus::Interface: Duplication of property: ..." or
    // "... of method: ..." for a name that stands twice, and tarvek::system_error "Could not
    // register sd_bus_vtable" if sd-bus refuses the table.
    Interface(sd_bus* bus, ObjectPath const& path, glue::IInterface& interface,
        detail::executors::Injector& injector, common::Vrel& vrel);
    Interface(Interface const&) = delete;
    Interface& operator=(Interface const&) = delete;
    ~Interface();

    // Raise tarvek::unknown_property and tarvek::unknown_method for a missing name.
    glue::IProperty& get_property(std::string const& name) const;
    glue::IMethod& get_method(std::string const& name) const;

    AuthorityChecker::Result authorize_property_read(AuthorityChecker::User const& user) const;
    AuthorityChecker::Result authorize_property_write(
        AuthorityChecker::User const& user, ConstString property) const;
    AuthorityChecker::Result authorize_method_call(
        AuthorityChecker::User const& user, ConstString method) const;

    // One PropertiesChanged with everything that get_changed hands over; nothing when that
    // is empty. Raises tarvek::system_error "Failed to emit PropertiesChanged for props: ".
    void emit_properties_changed(sd_bus* bus, ObjectPath const& path);
    // Raises what building, serializing or sending the signal raises.
    void emit_signal(
        sd_bus* bus, ObjectPath const& path, ConstString signal, std::shared_ptr<glue::ISignalValue> value);

    ConstString interface_name() const noexcept { return name; }
    glue::IInterface& glue_interface() const noexcept { return interface; }
    PropertyMap const& property_map() const noexcept { return properties; }
    detail::executors::Injector const& server_injector() const noexcept { return injector; }

private:
    static int get_callback(sd_bus* bus, char const* path, char const* interface, char const* property,
        sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int set_callback(sd_bus* bus, char const* path, char const* interface, char const* property,
        sd_bus_message* value, void* userdata, sd_bus_error* error);
    static int method_callback(sd_bus_message* message, void* userdata, sd_bus_error* error);

    ConstString name;
    // sd-bus keeps pointing at the table for as long as the slot lives.
    std::unique_ptr<sd_bus_vtable[]> vtable;
    SlotPtr slot;
    glue::IInterface& interface;
    PropertyMap properties;
    std::map<std::string, std::reference_wrapper<glue::IMethod>> methods;
    detail::executors::Injector& injector;
    AuthorityChecker authority;
};

} // namespace tarvek::server::dbus
