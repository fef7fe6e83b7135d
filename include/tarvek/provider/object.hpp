// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek::Object: the application's handle of one published object. It owns the object's
// interface implementations and, unless it is given one, an executor of its own on which
// its method calls and property writes run.
//
// A default-constructed Object's executor runs only when the application drives it with
// execute(), typically when the executor's event descriptor turns readable; until then
// requests stay queued. An Object built on a given executor leaves driving and closing it to
// that executor's owner.
//
// Interfaces are added only before registration (check_can_add_interface, then
// add_interface_internal). The handle can be moved freely, also while registered and with
// calls in flight: the registry refers to the ObjectState, which stays put. A moved-from
// handle fails every operation with "Object is no longer valid", except destruction and
// operator bool. The handle itself is not synchronised: one thread uses it at a time.
//
// Destruction unregisters the object, destroys its interfaces and then closes its private
// executor, whose queued requests then fail with a broken promise. An Object on a given
// executor must be destroyed on that executor's thread after its queue has run dry (or kept
// alive until then): its queued method calls would still run.
#pragma once

#include <tarvek/common/const_string.hpp>
#include <tarvek/common/object_path.hpp>
#include <tarvek/provider/interface_implementation.hpp>

#include <iosfwd>
#include <memory>

namespace tarvek::detail::executors {
class ExecutorBase;
} // namespace tarvek::detail::executors

namespace tarvek::provider {
class ObjectState;
} // namespace tarvek::provider

namespace tarvek {

class Object {
public:
    // With a private executor.
    Object();
    // On a given executor, which the object shares and never closes.
    explicit Object(detail::executors::ExecutorBase& executor);
    Object(Object&& other) noexcept;
    Object(Object const&) = delete;
    Object& operator=(Object const&) = delete;
    Object& operator=(Object&&) = delete;
    ~Object();

    // The private executor; std::bad_optional_access for an object on a given executor.
    detail::executors::ExecutorBase& executor();
    // Runs the private executor's queue dry; true if a task ran. A task's exception passes
    // on, with the tasks behind it still queued. Raises tarvek::invalid_state_error "Executor
    // is already closed" and, as executor() does, std::bad_optional_access.
    bool execute();

    provider::ObjectState& state();
    provider::ObjectState const& state() const;

    unsigned long num_interfaces() const;
    // Unchecked.
    provider::IInterfaceImplementation& interface(unsigned long index);
    provider::IInterfaceImplementation const& interface(unsigned long index) const;
    // Raises tarvek::invalid_argument "No such interface: " and the name.
    provider::IInterfaceImplementation& get_by_name(ConstString name);

    // The two steps of adding an interface, in this order; the second doesn't repeat the
    // checks of the first. Raises tarvek::invalid_argument "Cannot add interface, object
    // already registered" or "Object already has interface: " and the name.
    void check_can_add_interface(ConstString name) const;
    provider::IInterfaceImplementation* add_interface_internal(
        std::unique_ptr<provider::IInterfaceImplementation> implementation);

    bool is_registered() const;
    // Registered and valid; false, without failing, for a moved-from handle.
    explicit operator bool() const;
    // Empty while unregistered.
    ObjectPath const& path() const;
    operator ObjectPath() const { return path(); } // NOLINT(google-explicit-constructor)

    // The object's state as a storage document (provider::storage::Object): write_json
    // captures it and writes only what differs from the defaults; read_json reads a
    // document and applies it, one atomic set_properties per interface.
    void write_json(std::ostream& out) const;
    void read_json(std::istream& in);

private:
    struct Impl;
    Impl& impl() const;

    Impl* impl_;
};

// write_json and read_json, returning the stream.
std::ostream& operator<<(std::ostream& out, Object const& object);
std::istream& operator>>(std::istream& in, Object& object);

} // namespace tarvek
