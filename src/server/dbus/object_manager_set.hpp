// SPDX-License-Identifier: LGPL-2.1-or-later
// ObjectManagerSet: the server's object tree. It holds every dbus::Object by path and the
// registered object managers, and emits InterfacesAdded and InterfacesRemoved for the
// objects that a manager covers: those whose path is the manager's path or continues it
// by whole elements. There is no exception for the root: a manager at "/" covers "/" only.
//
// Runs on the thread that serves the bus only, inside the server's tasks; no lock. The
// connection isn't owned and outlives the set. Objects end before managers, and the
// destructor emits nothing.
#pragma once

#include "server/dbus/object.hpp"
#include "server/dbus/slot_deleter.hpp"

#include <tarvek/common/object_path.hpp>
#include <tarvek/glue/interface.hpp>

#include <map>
#include <memory>

namespace tarvek::server::dbus {

class ObjectManagerSet {
public:
    explicit ObjectManagerSet(sd_bus* bus) noexcept
        : bus(bus)
    {
    }
    ObjectManagerSet(ObjectManagerSet const&) = delete;
    ObjectManagerSet& operator=(ObjectManagerSet const&) = delete;

    // A second call for a path has no effect. Raises tarvek::system_error "Could not
    // register object manager: <path>" and leaves no trace then.
    void add_object_manager(ObjectPath const& path);
    bool covered_by_manager(ObjectPath const& path) const;

    // Raises tarvek::invalid_argument "Object already exists: <path>", and tarvek::system_error
    // "Emit object added failed: <path>" with the object kept in the tree.
    void add_object(std::unique_ptr<Object> object);
    // Erases first and emits second. Raises tarvek::invalid_argument "No such object: <path>",
    // and tarvek::system_error "Emit object removed failed: <path>".
    void remove_object(ObjectPath const& path);
    // Raises tarvek::invalid_argument "No such object: <path>".
    Object& get(ObjectPath const& path) const;

    void on_properties_changed(glue::IObject& object, ObjectPath const& path, glue::IInterface& interface);
    void on_signal(glue::IObject& object, ObjectPath const& path, glue::IInterface& interface,
        glue::ISignal& signal, std::shared_ptr<glue::ISignalValue> value);

private:
    sd_bus* bus;
    std::map<ObjectPath, SlotPtr> managers;
    std::map<ObjectPath, std::unique_ptr<Object>> objects;
};

} // namespace tarvek::server::dbus
