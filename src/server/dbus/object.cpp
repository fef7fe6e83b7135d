// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/object.hpp"

#include "server/dbus/callback_guard.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/throw_exception.hpp>

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

namespace tarvek::server::dbus {

namespace {

// The length of the complete type at the start of a valid signature: one character for a
// basic type or a variant, the element for an array, up to the closing bracket for a
// structure or a dictionary entry.
std::size_t complete_type_length(std::string_view signature)
{
    if (signature.empty())
        return 0;
    switch (signature.front()) {
    case 'a': {
        std::size_t const element = complete_type_length(signature.substr(1));
        return element == 0 ? 0 : 1 + element;
    }
    case '(':
    case '{': {
        std::size_t at = 1;
        while (at < signature.size() && signature[at] != ')' && signature[at] != '}') {
            std::size_t const member = complete_type_length(signature.substr(at));
            if (member == 0)
                return 0;
            at += member;
        }
        return at < signature.size() ? at + 1 : 0;
    }
    default:
        return 1;
    }
}

// "ss" and one further complete type that is not a variant: a Set whose value came bare.
bool is_unwrapped_value(char const* signature)
{
    std::string_view const text = signature ? signature : "";
    if (text.size() < 3 || text.substr(0, 2) != "ss" || text[2] == 'v')
        return false;
    return complete_type_length(text.substr(2)) == text.size() - 2;
}

} // namespace

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

std::vector<std::string> Object::interface_names() const
{
    std::vector<std::string> names{ExtendedProperties::name.str()};
    auto const& collection = object->interfaces();
    for (unsigned long index = 0; index < collection.size(); ++index) {
        ConstString const name = collection[index].interface_name();
        // A duplicate was dropped when the object was built.
        if (std::find(names.begin(), names.end(), name.str()) == names.end())
            names.push_back(name.str());
    }
    return names;
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
        // Interface and property named, but the value isn't a variant: the same answer as
        // a variant of the wrong type.
        if (is_unwrapped_value(sd_bus_message_get_signature(message, true)))
            return sd_bus_error_setf(error, "org.freedesktop.DBus.Error.InvalidSignature", "Property type mismatch");
        return sd_bus_error_setf(error, "org.freedesktop.DBus.Error.InvalidArgs",
            "Invalid arguments '%s' to call org.freedesktop.DBus.Properties.Set(), expecting 'ssv'.",
            sd_bus_message_get_signature(message, true));
    }
    return call_set_property(message, error);
}

} // namespace tarvek::server::dbus
