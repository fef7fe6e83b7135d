// SPDX-License-Identifier: LGPL-2.1-or-later
// IProtocolServer: what the provider runtime tells a protocol server. The registry keeps
// a plain pointer and does not own the server.
//
// All four notifications are made with runtime locks held (the registry's, an object's or
// an interface's), on whatever thread caused them. An implementation therefore must not
// call back into the registry or into the interface's request operations, and must not
// block: it queues a task on its own executor and returns.
#pragma once

#include <tarvek/common/object_path.hpp>
#include <tarvek/glue/interface.hpp>

#include <memory>
#include <string>

namespace tarvek::glue {

class IProtocolServer {
public:
    virtual ~IProtocolServer() = default;

    // A fixed name, for the application.
    virtual std::string const& name() const = 0;
    // A new object, or an existing one on a newly added server; the server owns `object`.
    virtual void on_object_added(std::unique_ptr<IObject> object, ObjectPath const& path) = 0;
    virtual void on_object_removed(ObjectPath const& path) = 0;
    // At least one property of `interface` changed; get_changed must follow later.
    virtual void on_properties_changed(IObject& object, ObjectPath const& path, IInterface& interface) = 0;
    virtual void on_signal(IObject& object, ObjectPath const& path, IInterface& interface, ISignal& signal,
                           std::shared_ptr<ISignalValue> value)
        = 0;
};

} // namespace tarvek::glue
