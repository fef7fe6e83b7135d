// SPDX-License-Identifier: LGPL-2.1-or-later
// InterfaceImplementationBase: the base of an application's interface class, which ties it
// to its shared InterfaceState. The interface class makes the state first, with *this, the
// interface's name, its committed property set and its method and signal collections:
//
//     MyInterface() : InterfaceImplementationBase(std::make_shared<InterfaceState>(
//                         *this, "com.example.My", properties, methods, signals)) {}
//
// Moving the object moves the tie: the state then points at the new object, also while
// requests are in flight. Destroying it cuts the state off, so that writes and calls that
// arrive later fail with "Object removed" while reads go on serving the last values.
#pragma once

#include <tarvek/provider/interface_implementation.hpp>

#include <memory>

namespace tarvek::provider {

class InterfaceImplementationBase : public IInterfaceImplementation {
public:
    // Stores the state and does nothing to it.
    explicit InterfaceImplementationBase(std::shared_ptr<InterfaceState> state) noexcept;
    InterfaceImplementationBase(InterfaceImplementationBase&& other) noexcept;
    InterfaceImplementationBase(InterfaceImplementationBase const&) = delete;
    InterfaceImplementationBase& operator=(InterfaceImplementationBase const&) = delete;
    InterfaceImplementationBase& operator=(InterfaceImplementationBase&&) = delete;
    ~InterfaceImplementationBase() override;

    ConstString interface_name() const override;
    void internal_set_parent_object(tarvek::Object* object) override;
    tarvek::Object* internal_get_parent_object() override;
    tarvek::Object const* internal_get_parent_object() const override;
    std::shared_ptr<InterfaceState> internal_get_state() override;

protected:
    // Empty in a moved-from object, which may only be destroyed.
    std::shared_ptr<InterfaceState> state_;
};

} // namespace tarvek::provider
