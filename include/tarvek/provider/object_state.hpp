// SPDX-License-Identifier: LGPL-2.1-or-later
// ObjectState: the part of a tarvek::Object that stays at one address while the handle
// moves. The registry and every server's wrappers refer to it; it owns the object's
// interface implementations and its route to the executor, and it knows whether, where and
// in which registry the object is registered.
//
// Interfaces are added only before registration, from one thread, without a lock. The
// object mutex guards `set_object` and the detach operations; it nests inside the registry's
// mutex, except in the destructor, which holds it while it unregisters the object from its
// registry. So an object must not be destroyed while remove_object or remove_all run on it
// on another thread.
#pragma once

#include <tarvek/common/const_string.hpp>
#include <tarvek/common/object_path.hpp>
#include <tarvek/executors/injector.hpp>
#include <tarvek/provider/interface_implementation.hpp>

#include <atomic>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <vector>

namespace tarvek {
class API_Registry;
class Object;
} // namespace tarvek

namespace tarvek::provider {

class ObjectState {
public:
    ObjectState(tarvek::Object& object, detail::executors::Injector injector);
    ObjectState(ObjectState const&) = delete;
    ObjectState& operator=(ObjectState const&) = delete;
    // Detaches and, if still registered, removes itself from its registry (which tells every
    // server), then destroys the interfaces in order of addition. A failure ends the process.
    ~ObjectState();

    // The owning handle is not updated when an Object moves; this corrects it.
    void set_object(tarvek::Object* object);
    // Hands the executor and the owning object to the interface's state and keeps the
    // implementation for good. Raises tarvek::internal_error "ObjectState: No associated
    // object" when there is no owning object.
    IInterfaceImplementation* add_interface(std::unique_ptr<IInterfaceImplementation> implementation);
    // Null if absent.
    IInterfaceImplementation* find_interface(ConstString name) const;

    // Called by the registry with its mutex held: records the registration and clears the
    // removed flag of every wrapper of every interface.
    void attach(API_Registry& registry, ObjectPath const& path, std::shared_mutex& registry_mutex);
    // Flags every wrapper of every interface as removed and forgets the registration; the
    // interfaces stay, and the object may be registered again. detach() takes the object
    // mutex, detach_no_lock() expects its caller to hold it.
    void detach();
    void detach_no_lock();

    std::vector<std::unique_ptr<IInterfaceImplementation>> const& interfaces() const noexcept
    {
        return interfaces_;
    }
    bool is_registered() const noexcept { return registry_mutex_ != nullptr; }
    // Empty while not registered. For the owner's thread: a detach changes it.
    ObjectPath const& path() const noexcept { return path_; }
    // The same path for readers on any thread, such as wrappers that notify a server while
    // a detach empties it elsewhere: one atomic load, no lock, no allocation.
    std::shared_ptr<ObjectPath const> shared_path() const noexcept { return shared_path_.load(); }

private:
    void set_path(ObjectPath const& path);

    tarvek::Object* object_;
    detail::executors::Injector injector_;
    std::vector<std::unique_ptr<IInterfaceImplementation>> interfaces_;
    mutable std::mutex mutex_;
    API_Registry* registry_ = nullptr;
    ObjectPath path_;
    // Only tested for null: the sign of registration; never locked through this pointer.
    std::shared_mutex* registry_mutex_ = nullptr;
    std::atomic<std::shared_ptr<ObjectPath const>> shared_path_;
};

} // namespace tarvek::provider
