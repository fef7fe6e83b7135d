// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek::API_Registry: where objects and protocol servers meet. It maps object paths to
// objects, lists the servers, and hands every server one wrapper of every object.
//
// Every operation holds the registry's mutex exclusively, also while it notifies servers:
// a server's on_object_added and on_object_removed only queue work and return. Failures
// leave the mutex released and undo nothing that came before them.
//
// Lifetime: the registry neither owns objects nor servers. An object that outlives the
// registry is detached by the registry's destructor; one that dies first removes itself.
// Objects refer to the registry by address: it must not move while objects are registered.
// Servers must outlive the registry or be removed from it first. An object must not be
// destroyed on one thread while remove_object or remove_all run on it on another.
#pragma once

#include <tarvek/common/object_path.hpp>
#include <tarvek/glue/protocol_server.hpp>

namespace tarvek {

class Object;

class API_Registry {
public:
    API_Registry();
    // Only while no object is registered. The moved-from registry fails every operation
    // with tarvek::internal_error "null dereference".
    API_Registry(API_Registry&& other) noexcept;
    API_Registry(API_Registry const&) = delete;
    API_Registry& operator=(API_Registry const&) = delete;
    API_Registry& operator=(API_Registry&&) = delete;
    // Forgets the servers without telling them, then detaches every object.
    ~API_Registry();

    // Hands the new server a wrapper of every object, in path order. Raises
    // tarvek::invalid_argument "Server already added".
    void add_server(glue::IProtocolServer& server);
    // Forgets the server for future objects; it keeps its wrappers and goes on receiving
    // their changes. Raises tarvek::invalid_argument "No such server".
    void remove_server(glue::IProtocolServer const& server);

    // Registers the object and hands every server a wrapper. Raises tarvek::invalid_argument
    // "Invalid object path" for the empty path and "Path already exists: " and the path.
    void add_object(tarvek::Object& object, ObjectPath const& path);
    // Tells every server, then looks the path up: an unknown path is told to all servers and
    // then raises tarvek::invalid_argument "No such object: " and the path.
    void remove_object(ObjectPath const& path);
    // For the object's own destructor: the object keeps its registration data.
    void remove_object_no_detach(ObjectPath const& path);
    void remove_object(ObjectPath const& path, bool detach);
    // Detaches every object and forgets objects and servers, without telling any server.
    void remove_all();

private:
    struct Impl;

    Impl* impl_;
};

} // namespace tarvek
