// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/provider/registry.hpp>

#include "provider/wrappers.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/object_state.hpp>

#include <boost/throw_exception.hpp>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>
#include <vector>

namespace tarvek {

namespace {

// Objects by path, and their insertion and removal. The map refers to the states and owns
// nothing. Each operation expects the registry's mutex held by its caller.
struct ObjectMap {
    // Raises "Invalid object path" and "Path already exists: ", changing nothing.
    void insert(provider::ObjectState& state, ObjectPath const& path)
    {
        if (path.empty())
            boost::throw_exception(invalid_argument("Invalid object path"));
        if (!objects.emplace(path, state).second)
            boost::throw_exception(invalid_argument(str::join("Path already exists: ", path)));
        state.attach(registry, path, mutex);
    }

    void remove(ObjectPath const& path, bool detach)
    {
        auto const found = objects.find(path);
        if (found == objects.end())
            boost::throw_exception(invalid_argument(str::join("No such object: ", path)));
        if (detach)
            found->second.get().detach();
        objects.erase(found);
    }

    API_Registry& registry;
    std::shared_mutex& mutex;
    std::map<ObjectPath, std::reference_wrapper<provider::ObjectState>> objects;
};

} // namespace

struct API_Registry::Impl {
    explicit Impl(API_Registry& registry)
        : objects{registry, mutex, {}}
    {
    }

    // Always taken exclusively.
    std::shared_mutex mutex;
    ObjectMap objects;
    std::vector<glue::IProtocolServer*> servers;
};

namespace {

[[noreturn]] void raise_null()
{
    boost::throw_exception(internal_error("null dereference"));
}

// Locks the registry of `impl`, checking the pointer before and again under the lock.
template <class Impl> std::unique_lock<std::shared_mutex> lock_registry(Impl* const& impl)
{
    if (impl == nullptr)
        raise_null();
    std::unique_lock lock(impl->mutex);
    if (impl == nullptr)
        raise_null();
    return lock;
}

} // namespace

API_Registry::API_Registry()
    : impl_(new Impl(*this))
{
}

API_Registry::API_Registry(API_Registry&& other) noexcept
    : impl_(std::exchange(other.impl_, nullptr))
{
}

API_Registry::~API_Registry()
{
    if (impl_ == nullptr)
        return;
    // No lock, and no server is told. A failure of a detach ends the process.
    impl_->servers.clear();
    for (auto& [path, state] : impl_->objects.objects)
        state.get().detach();
    delete impl_;
}

void API_Registry::add_server(glue::IProtocolServer& server)
{
    auto const lock = lock_registry(impl_);
    auto& servers = impl_->servers;
    if (std::find(servers.begin(), servers.end(), &server) != servers.end())
        boost::throw_exception(invalid_argument("Server already added"));
    servers.push_back(&server);
    for (auto& [path, state] : impl_->objects.objects)
        server.on_object_added(std::make_unique<provider::ObjectWrapper>(state.get(), server), path);
}

void API_Registry::remove_server(glue::IProtocolServer const& server)
{
    auto const lock = lock_registry(impl_);
    auto& servers = impl_->servers;
    auto const found = std::find(servers.begin(), servers.end(), &server);
    if (found == servers.end())
        boost::throw_exception(invalid_argument("No such server"));
    servers.erase(found);
}

void API_Registry::add_object(tarvek::Object& object, ObjectPath const& path)
{
    auto const lock = lock_registry(impl_);
    auto& state = object.state();
    impl_->objects.insert(state, path);
    // No rollback: a failing server leaves the object registered and known to those before.
    for (auto* server : impl_->servers)
        server->on_object_added(std::make_unique<provider::ObjectWrapper>(state, *server), path);
}

void API_Registry::remove_object(ObjectPath const& path)
{
    remove_object(path, true);
}

void API_Registry::remove_object_no_detach(ObjectPath const& path)
{
    remove_object(path, false);
}

void API_Registry::remove_object(ObjectPath const& path, bool detach)
{
    auto const lock = lock_registry(impl_);
    // Servers hear of the path before it is looked up, also of one that isn't there.
    for (auto* server : impl_->servers)
        server->on_object_removed(path);
    impl_->objects.remove(path, detach);
}

void API_Registry::remove_all()
{
    auto const lock = lock_registry(impl_);
    auto& objects = impl_->objects.objects;
    for (auto& [path, state] : objects)
        state.get().detach();
    objects.clear();
    // Servers keep their wrappers, now flagged as removed, and must be added again.
    impl_->servers.clear();
}

} // namespace tarvek
