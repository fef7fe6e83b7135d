// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/provider/interface_implementation_base.hpp>
#include <tarvek/provider/interface_state.hpp>

#include <utility>

namespace tarvek::provider {

InterfaceImplementationBase::InterfaceImplementationBase(std::shared_ptr<InterfaceState> state) noexcept
    : state_(std::move(state))
{
}

InterfaceImplementationBase::InterfaceImplementationBase(InterfaceImplementationBase&& other) noexcept
    : state_(std::move(other.state_))
{
    // Requests in flight find the new object from now on.
    state_->set_interface_impl(*this);
}

InterfaceImplementationBase::~InterfaceImplementationBase()
{
    // Wrappers may keep the state alive; from now on they find "Object removed".
    if (state_)
        state_->detach_from_impl();
}

ConstString InterfaceImplementationBase::interface_name() const
{
    return state_->interface_name();
}

void InterfaceImplementationBase::internal_set_parent_object(tarvek::Object* object)
{
    state_->set_parent_object(object);
}

tarvek::Object* InterfaceImplementationBase::internal_get_parent_object()
{
    return state_->get_parent_object();
}

tarvek::Object const* InterfaceImplementationBase::internal_get_parent_object() const
{
    return std::as_const(*state_).get_parent_object();
}

std::shared_ptr<InterfaceState> InterfaceImplementationBase::internal_get_state()
{
    return state_;
}

} // namespace tarvek::provider
