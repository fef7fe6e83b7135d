// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/object.hpp"

#include "server/dbus/callback_guard.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/throw_exception.hpp>

#include <utility>

namespace tarvek::server::dbus {

Object::Object(detail::executors::Injector injector, sd_bus* bus, std::unique_ptr<glue::IObject> object,
    ObjectPath const& path, common::Vrel& vrel)
    : path(path)
    , object(std::move(object))
    , extended_properties(std::make_unique<ExtendedProperties>(bus, *this))
    , injector(std::move(injector))
{
    sd_bus_slot* new_slot = nullptr;
    int const r = sd_bus_add_object(bus, &new_slot, this->path.c_str(), &Object::callback, this);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "Could not add sd_dbus object"));
    slot.reset(new_slot);

    auto& collection = this->object->interfaces();
    unsigned long const count = collection.size();
    for (unsigned long index = 0; index < count; ++index) {
        glue::IInterface& interface = collection[index];
        ConstString const name = interface.interface_name();
        // Looked at before building: a second table under the same name would clash with
        // the first one's members in sd-bus.
        if (interfaces.contains(name))
            continue;
        interfaces.emplace(
            name, std::make_unique<Interface>(bus, this->path, interface, this->injector, vrel));
    }
}

Object::~Object() = default;

Interface& Object::get_dbus_interface(ConstString name) const
{
    auto const found = interfaces.find(name);
    if (found == interfaces.end())
        boost::throw_exception(
            tarvek::unknown_interface(str::join("Object ", path, ": No such interface: ", name)));
    return *found->second;
}

int Object::call_set_property(sd_bus_message* message, sd_bus_error* error)
{
    return extended_properties->call_set_property(message, error);
}

int Object::callback(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    return guard_handler(message, error, [&] { return static_cast<Object*>(userdata)->intercept(message, error); });
}

int Object::intercept(sd_bus_message* message, sd_bus_error* error)
{
    // Everything but a property write goes on to the vtables of the path.
    if (sd_bus_message_is_method_call(message, "org.freedesktop.DBus.Properties", "Set") == 0)
        return 0;
    // sd-bus checks the signature of the calls it routes itself, but not of those that an
    // object callback takes: without this a malformed Set would make the reads of its
    // names raise through sd-bus's dispatch, which leaves the connection unserved.
    if (sd_bus_message_has_signature(message, "ssv") <= 0) {
        return sd_bus_error_setf(error, "org.freedesktop.DBus.Error.InvalidArgs",
            "Invalid arguments '%s' to call org.freedesktop.DBus.Properties.Set(), expecting 'ssv'.",
            sd_bus_message_get_signature(message, true));
    }
    return call_set_property(message, error);
}

} // namespace tarvek::server::dbus
