// SPDX-License-Identifier: LGPL-2.1-or-later
#include "provider/wrappers.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/hard_assert.hpp>
#include <tarvek/executors/injector.hpp>

#include <boost/throw_exception.hpp>

#include <shared_mutex>

namespace tarvek::provider {

InterfaceWrapper::InterfaceWrapper(
    ObjectWrapper& parent, std::shared_ptr<InterfaceState> state, glue::IProtocolServer& server)
    : parent_(&parent)
    , server_(&server)
    , name_(state->interface_name())
    , dirty_(state->properties().size())
    , notified_(false)
    , changed_(state->properties())
    , removed_(false)
{
    attach_to_state(std::move(state));
}

InterfaceWrapper::InterfaceWrapper(InterfaceWrapper&& other)
    : parent_(other.parent_)
    , server_(other.server_)
    , name_(other.name_)
    , dirty_(std::move(other.dirty_))
    , notified_(other.notified_)
    , changed_(other.state_->properties())
    , removed_(other.removed_)
{
    // The state knows its wrappers by address, so a move registers anew.
    auto state = other.state_;
    other.detach_from_state();
    attach_to_state(std::move(state));
}

InterfaceWrapper::~InterfaceWrapper()
{
    // The destructor is noexcept: a failure here ends the process.
    detach_from_state();
}

glue::ICollection<glue::IProperty>& InterfaceWrapper::properties()
{
    return state_->properties();
}

glue::ICollection<glue::IProperty> const& InterfaceWrapper::properties() const
{
    return std::as_const(*state_).properties();
}

glue::ICollection<glue::IMethod>& InterfaceWrapper::methods()
{
    return state_->methods();
}

glue::ICollection<glue::IMethod> const& InterfaceWrapper::methods() const
{
    return std::as_const(*state_).methods();
}

glue::ICollection<glue::ISignal>& InterfaceWrapper::signals()
{
    return state_->signals();
}

glue::ICollection<glue::ISignal> const& InterfaceWrapper::signals() const
{
    return std::as_const(*state_).signals();
}

boost::future<void> InterfaceWrapper::set_many(
    glue::IIterator<std::pair<glue::IProperty&, glue::IDeserializer&>>& values,
    glue::IIterator<glue::IProperty&>& resets)
{
    // Held across the whole request, so that a detach that returns has let no new request in.
    std::lock_guard lock(call_mutex_);
    if (!state_)
        return make_exception_future<void, invalid_argument>("Interface wrapper is already detached");
    if (removed_)
        return make_exception_future<void, invalid_argument>("Interface/object has been removed");
    return state_->set_many(values, resets);
}

void InterfaceWrapper::get_many(glue::IIterator<std::pair<glue::IProperty const&, glue::ISerializer&>>& reads)
{
    // The committed values outlive both the object's registration and its implementation.
    std::shared_lock lock(state_->state_mutex());
    for (; !reads.at_end(); reads.advance()) {
        auto entry = reads.value();
        entry.first.serialize(entry.second);
    }
}

void InterfaceWrapper::get_changed(std::function<void(glue::ICollection<glue::IProperty>&)> receiver)
{
    // The shared lock keeps commits out, so the receiver sees committed values only.
    std::shared_lock state_lock(state_->state_mutex());
    std::lock_guard dirty_lock(dirty_mutex_);
    auto& changed = get_dirty_properties();
    if (!receiver)
        boost::throw_exception(std::bad_function_call());
    receiver(changed);
    // Cleared only after a receiver that returned; a mark made meanwhile waited at the
    // dirty mutex and will notify again.
    notified_ = false;
}

boost::future<std::unique_ptr<glue::IMethodReturnValue>> InterfaceWrapper::call_method(
    glue::IMethod& method, glue::IIterator<glue::IDeserializer&>& arguments)
{
    using Result = std::unique_ptr<glue::IMethodReturnValue>;
    std::lock_guard lock(call_mutex_);
    if (!state_)
        return make_exception_future<Result, invalid_argument>("Interface wrapper is already detached");
    if (removed_)
        return make_exception_future<Result, invalid_argument>("Interface/object has been removed");
    return state_->method_call(static_cast<IMethodEx&>(method), arguments);
}

void InterfaceWrapper::flag_as_removed(bool removed)
{
    std::lock_guard lock(call_mutex_);
    removed_ = removed;
}

void InterfaceWrapper::set_dirty(unsigned long index)
{
    std::shared_ptr<ObjectPath const> path;
    {
        std::lock_guard lock(dirty_mutex_);
        dirty_.set(index);
        if (notified_)
            return;
        notified_ = true;
        path = parent_->path();
    }
    // One notification per batch, with the wrapper's mutexes released.
    server_->on_properties_changed(*parent_, *path, *this);
}

IChangedProperties& InterfaceWrapper::get_dirty_properties()
{
    changed_.reset();
    for (unsigned long i = 0; i < dirty_.size(); ++i) {
        if (dirty_.test(i)) {
            changed_.add(i);
            dirty_.clear(i);
        }
    }
    return changed_;
}

void InterfaceWrapper::emit_signal(glue::ISignal& signal, std::shared_ptr<glue::ISignalValue> value)
{
    auto const path = parent_->path();
    server_->on_signal(*parent_, *path, *this, signal, std::move(value));
}

void InterfaceWrapper::attach_to_state(std::shared_ptr<InterfaceState> state)
{
    detach_from_state();
    common::tarvek_hard_assert(!state_, "not state_", nullptr, nullptr, -1);
    state_ = std::move(state);
    try {
        state_->add_wrapper(*this);
    } catch (...) {
        state_.reset();
        throw;
    }
}

void InterfaceWrapper::detach_from_state()
{
    if (!state_)
        return;
    auto const state = std::move(state_);
    state->try_remove_wrapper(*this);
}

ObjectWrapper::ObjectWrapper(ObjectState& state, glue::IProtocolServer& server)
    : state_(&state)
{
    // Should a step fail, the vector destroys the finished wrappers, which unregister.
    for (unsigned long i = 0; i < state.interfaces().size(); ++i)
        interfaces_.elements.emplace_back(*this, state.interfaces()[i]->internal_get_state(), server);
}

ObjectWrapper::ObjectWrapper(ObjectWrapper&& other) noexcept
    : state_(other.state_)
    , interfaces_(std::move(other.interfaces_))
{
    // Only the buffer changed hands; the wrappers stay where they are.
    for (auto& wrapper : interfaces_.elements)
        wrapper.set_parent(*this);
}

} // namespace tarvek::provider
