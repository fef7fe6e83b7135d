// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/provider/object_state.hpp>

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/interface_state.hpp>
#include <tarvek/provider/registry.hpp>

#include <boost/throw_exception.hpp>

#include <utility>

namespace tarvek::provider {

ObjectState::ObjectState(tarvek::Object& object, detail::executors::Injector injector)
    : object_(&object)
    , injector_(std::move(injector))
    , shared_path_(std::make_shared<ObjectPath const>())
{
}

ObjectState::~ObjectState()
{
    {
        // Holds the object mutex while it takes the registry's, against the usual order.
        std::lock_guard lock(mutex_);
        auto const path = path_;
        auto* const registry = registry_;
        detach_no_lock();
        if (registry != nullptr)
            registry->remove_object_no_detach(path);
    }
    // In order of addition; each implementation cuts its state off, so that a wrapper still
    // held by a server finds "Object removed".
    for (auto& implementation : interfaces_)
        implementation.reset();
    interfaces_.clear();
}

void ObjectState::set_object(tarvek::Object* object)
{
    std::lock_guard lock(mutex_);
    object_ = object;
}

IInterfaceImplementation* ObjectState::add_interface(std::unique_ptr<IInterfaceImplementation> implementation)
{
    if (object_ == nullptr)
        boost::throw_exception(internal_error("ObjectState: No associated object"));
    implementation->internal_get_state()->on_added_to_object(*object_, injector_);
    interfaces_.push_back(std::move(implementation));
    return interfaces_.back().get();
}

IInterfaceImplementation* ObjectState::find_interface(ConstString name) const
{
    for (auto const& implementation : interfaces_) {
        if (implementation->interface_name() == name)
            return implementation.get();
    }
    return nullptr;
}

void ObjectState::attach(API_Registry& registry, ObjectPath const& path, std::shared_mutex& registry_mutex)
{
    registry_ = &registry;
    set_path(path);
    registry_mutex_ = &registry_mutex;
    for (auto& implementation : interfaces_)
        implementation->internal_get_state()->flag_as_removed(false);
}

void ObjectState::detach()
{
    std::lock_guard lock(mutex_);
    detach_no_lock();
}

void ObjectState::detach_no_lock()
{
    for (auto& implementation : interfaces_)
        implementation->internal_get_state()->flag_as_removed(true);
    registry_ = nullptr;
    set_path(ObjectPath());
    registry_mutex_ = nullptr;
}

void ObjectState::set_path(ObjectPath const& path)
{
    path_ = path;
    shared_path_.store(std::make_shared<ObjectPath const>(path));
}

} // namespace tarvek::provider
