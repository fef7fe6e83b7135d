// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/object_manager_set.hpp"

#include "server/dbus/reply_budget.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/throw_exception.hpp>

#include <string>
#include <utility>
#include <vector>

namespace tarvek::server::dbus {


void ObjectManagerSet::add_object_manager(ObjectPath const& path)
{
    auto const [entry, inserted] = managers.try_emplace(path);
    if (!inserted)
        return;
    sd_bus_slot* slot = nullptr;
    int const r = sd_bus_add_object_manager(bus, &slot, path.c_str());
    if (r < 0) {
        managers.erase(entry);
        boost::throw_exception(
            tarvek::system_error(-r, str::join("Could not register object manager: ", path)));
    }
    entry->second.reset(slot);
}

bool ObjectManagerSet::covered_by_manager(ObjectPath const& path) const
{
    std::string const& text = path.str();
    for (auto const& [manager, slot] : managers) {
        std::string const& prefix = manager.str();
        if (text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0
            && (text.size() == prefix.size() || text[prefix.size()] == '/'))
            return true;
    }
    return false;
}

void ObjectManagerSet::add_object(std::unique_ptr<Object> object)
{
    ObjectPath const path = object->object_path();
    if (objects.contains(path))
        boost::throw_exception(tarvek::invalid_argument(str::join("Object already exists: ", path)));
    objects.emplace(path, std::move(object));
    if (covered_by_manager(path)) {
        // sd-bus reads every value for InterfacesAdded through the getters, now, and they
        // count them afresh.
        restart_getter_budget();
        int const r = sd_bus_emit_object_added(bus, path.c_str());
        if (r < 0)
            boost::throw_exception(tarvek::system_error(-r, str::join("Emit object added failed: ", path)));
    }
}

void ObjectManagerSet::remove_object(ObjectPath const& path)
{
    auto const found = objects.find(path);
    if (found == objects.end())
        boost::throw_exception(tarvek::invalid_argument(str::join("No such object: ", path)));
    // The object goes first and the signal follows, so sd-bus could no longer see what the
    // object had: the names are taken now. The list is the one of InterfacesAdded, in its
    // order: the interfaces that sd-bus serves itself, ObjectManager only where a manager
    // stands at the object's own path, then the registered ones, latest first. A client
    // such as GDBus drops the object as a whole only when the list names all it knew.
    std::vector<std::string> names{
        "org.freedesktop.DBus.Peer", "org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Properties"};
    if (managers.contains(path))
        names.emplace_back("org.freedesktop.DBus.ObjectManager");
    std::vector<std::string> const own = found->second->interface_names();
    names.insert(names.end(), own.rbegin(), own.rend());
    objects.erase(found);
    if (covered_by_manager(path)) {
        std::vector<char*> list;
        for (auto& name : names)
            list.push_back(name.data());
        list.push_back(nullptr);
        int const r = sd_bus_emit_interfaces_removed_strv(bus, path.c_str(), list.data());
        if (r < 0)
            boost::throw_exception(tarvek::system_error(-r, str::join("Emit object removed failed: ", path)));
    }
}

Object& ObjectManagerSet::get(ObjectPath const& path) const
{
    auto const found = objects.find(path);
    if (found == objects.end())
        boost::throw_exception(tarvek::invalid_argument(str::join("No such object: ", path)));
    return *found->second;
}

void ObjectManagerSet::on_properties_changed(
    glue::IObject&, ObjectPath const& path, glue::IInterface& interface)
{
    get(path).get_dbus_interface(interface.interface_name()).emit_properties_changed(bus, path);
}

void ObjectManagerSet::on_signal(glue::IObject&, ObjectPath const& path, glue::IInterface& interface,
    glue::ISignal& signal, std::shared_ptr<glue::ISignalValue> value)
{
    get(path)
        .get_dbus_interface(interface.interface_name())
        .emit_signal(bus, path, signal.name(), std::move(value));
}

} // namespace tarvek::server::dbus
