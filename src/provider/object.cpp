// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/provider/object.hpp>

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>
#include <tarvek/executors/executor_base.hpp>
#include <tarvek/executors/injector.hpp>
#include <tarvek/provider/object_state.hpp>

#include <boost/throw_exception.hpp>

#include <optional>
#include <utility>

namespace tarvek {

// Fields are destroyed in reverse: the interfaces go first, so that nothing reaches
// application code any more, and the private executor is closed last, which drops its
// queued tasks and breaks their promises.
struct Object::Impl {
    // With a private executor.
    explicit Impl(Object& object)
        : executor(std::in_place)
        , state(object, detail::executors::Injector(*executor))
    {
    }
    // On a given executor.
    Impl(Object& object, detail::executors::ExecutorBase& given)
        : state(object, detail::executors::Injector(given))
    {
    }

    std::optional<detail::executors::ExecutorBase> executor;
    provider::ObjectState state;
};

Object::Object()
    : impl_(new Impl(*this))
{
}

Object::Object(detail::executors::ExecutorBase& executor)
    : impl_(new Impl(*this, executor))
{
}

Object::Object(Object&& other) noexcept
    : impl_(std::exchange(other.impl_, nullptr))
{
    // Application code reached through an interface sees the new handle. The state's own
    // `object` stays at the old address until set_object corrects it.
    if (impl_ == nullptr)
        return;
    for (auto const& implementation : impl_->state.interfaces())
        implementation->internal_set_parent_object(this);
}

Object::~Object()
{
    delete impl_;
}

Object::Impl& Object::impl() const
{
    if (impl_ == nullptr)
        boost::throw_exception(invalid_argument("Object is no longer valid"));
    return *impl_;
}

detail::executors::ExecutorBase& Object::executor()
{
    return impl().executor.value();
}

bool Object::execute()
{
    // A copy: a task may close the executor while the loop runs.
    auto const state = executor().state();
    if (!state)
        boost::throw_exception(invalid_state_error("Executor is already closed"));
    bool ran = false;
    while (state->try_executing_one())
        ran = true;
    return ran;
}

provider::ObjectState& Object::state()
{
    return impl().state;
}

provider::ObjectState const& Object::state() const
{
    return impl().state;
}

unsigned long Object::num_interfaces() const
{
    return impl().state.interfaces().size();
}

provider::IInterfaceImplementation& Object::interface(unsigned long index)
{
    return *impl().state.interfaces()[index];
}

provider::IInterfaceImplementation const& Object::interface(unsigned long index) const
{
    return *impl().state.interfaces()[index];
}

provider::IInterfaceImplementation& Object::get_by_name(ConstString name)
{
    auto* const implementation = impl().state.find_interface(name);
    if (implementation == nullptr)
        boost::throw_exception(invalid_argument(str::join("No such interface: ", name)));
    return *implementation;
}

void Object::check_can_add_interface(ConstString name) const
{
    if (is_registered())
        boost::throw_exception(invalid_argument("Cannot add interface, object already registered"));
    if (impl().state.find_interface(name) != nullptr)
        boost::throw_exception(invalid_argument(str::join("Object already has interface: ", name)));
}

provider::IInterfaceImplementation* Object::add_interface_internal(
    std::unique_ptr<provider::IInterfaceImplementation> implementation)
{
    return impl().state.add_interface(std::move(implementation));
}

bool Object::is_registered() const
{
    return impl().state.is_registered();
}

Object::operator bool() const
{
    return impl_ != nullptr && impl_->state.is_registered();
}

ObjectPath const& Object::path() const
{
    return impl().state.path();
}

} // namespace tarvek
