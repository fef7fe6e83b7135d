// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/provider/interface_state.hpp>

#include "provider/changed_properties_view.hpp"
#include "provider/wrappers.hpp"

#include <tarvek/common/caller.hpp>
#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/exception_ptr.hpp>
#include <boost/throw_exception.hpp>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <list>
#include <mutex>
#include <optional>
#include <vector>

namespace tarvek::provider {

namespace {

// What a queued request keeps of its caller: the server's Caller lives only while it
// hands the request over.
std::optional<Caller> copy_current_caller()
{
    if (Caller const* const caller = current_caller())
        return *caller;
    return std::nullopt;
}

} // namespace

struct InterfaceState::Impl {
    Impl(IInterfaceImplementation& implementation, ConstString name,
        std::shared_ptr<IPropertyExCollection> properties, glue::ICollection<glue::IMethod>& methods,
        glue::ICollection<glue::ISignal>& signals)
        : implementation(&implementation)
        , name(name)
        , properties(std::move(properties))
        , methods(methods)
        , signals(signals)
    {
    }

    // Validates `context` and, if accepted, marks every wrapper for its dirty properties
    // and copies the whole context into the committed set. The state mutex is held
    // exclusively by the caller.
    bool apply_new_context(IPropertyExCollection& context);
    // Commits a batch of set_many: its values laid over the live ones, then validated and
    // applied as above. The state mutex is held exclusively by the caller.
    bool commit_batch(IPropertyExCollection& context, std::vector<bool> const& named);
    IPropertyExCollection& lay_over_live(IPropertyExCollection& context, std::vector<bool> const& named,
        std::unique_ptr<IPropertyExCollection>& fresh);
    void notify_property_dirty(IPropertyEx& property, unsigned long index);

    [[noreturn]] void raise_validation_failed() const
    {
        boost::throw_exception(validation_failed(str::join(name, ": Property validation failure")));
    }
    // A constant property's value is part of what clients were told when the object was
    // announced, and no signal would tell them of a change; so it stays put while the object
    // is registered.
    void check_not_constant(glue::IProperty const& property) const
    {
        if (published && glue::change_signal_of(property) == glue::ChangeSignal::constant)
            boost::throw_exception(invalid_state_error(
                str::join("Property ", property.name(), " is constant while its object is registered")));
    }

    IInterfaceImplementation* implementation;
    ConstString name;
    std::shared_ptr<IPropertyExCollection> properties;
    glue::ICollection<glue::IMethod>& methods;
    glue::ICollection<glue::ISignal>& signals;
    std::list<InterfaceWrapper*> wrappers;
    mutable std::shared_mutex mutex;
    detail::executors::Injector injector;
    tarvek::Object* parent_object = nullptr;
    // The object is registered: set and cleared with the wrappers' removed flags.
    std::atomic<bool> published = false;
};

bool InterfaceState::Impl::apply_new_context(IPropertyExCollection& context)
{
    // A task that outlived its implementation ends here, in the validation failure.
    if (implementation == nullptr)
        return false;
    if (!implementation->validate(context))
        return false;

    ChangedPropertiesView view(context);
    for (unsigned long i = 0; i < context.size(); ++i) {
        if (!context[i].is_dirty())
            continue;
        view.add(i);
        // Marking before copying is safe: a server can look at the values only through
        // get_changed or get_many, which wait for the lock that this commit holds.
        for (auto* wrapper : wrappers)
            wrapper->set_dirty(i);
    }
    // Every property, dirty or not. The clean ones equal the live values by now (a batch has
    // been laid over them, set_properties starts from them), so a copy_from that takes
    // every value and one that takes only marked ones commit the same state. A copy must not
    // fail, as there is no way back from here.
    auto& committed = *properties;
    for (unsigned long i = 0; i < committed.size(); ++i)
        committed[i].copy_from(context[i]);

    if (view.size() != 0)
        implementation->on_changed(context, view);
    return true;
}

bool InterfaceState::Impl::commit_batch(IPropertyExCollection& context, std::vector<bool> const& named)
{
    // A task that outlived its implementation ends in the validation failure, as before.
    if (implementation == nullptr)
        return false;
    std::unique_ptr<IPropertyExCollection> fresh;
    return apply_new_context(lay_over_live(context, named, fresh));
}

IPropertyExCollection& InterfaceState::Impl::lay_over_live(IPropertyExCollection& context,
    std::vector<bool> const& named, std::unique_ptr<IPropertyExCollection>& fresh)
{
    // The batch was read against the state of its time; other batches and the application
    // may have committed since. validate must judge what will stand after this commit: the
    // batch's own values over the live values of everything else. Usually nothing else has
    // moved, and the context is that state already; a comparison per property costs less
    // than a second copy of the set.
    auto& live = *properties;
    bool moved = false;
    for (unsigned long i = 0; i < context.size(); ++i) {
        auto& mine = context[i];
        if (named[i]) {
            // Named with the value that it had when read, which is no longer the live one:
            // the batch's value wins, as it would have if it had differed then, so it
            // becomes a change to commit and report.
            if (!mine.is_dirty() && !mine.equals(live[i]))
                mine.set_dirty();
            continue;
        }
        // A mark that the copy took over from the live set isn't this batch's change.
        mine.clear_dirty();
        if (!mine.equals(live[i]))
            moved = true;
    }
    if (!moved)
        return context;

    // Something that the batch didn't name has changed under it: start from the live set
    // and take over the batch's changes.
    fresh = implementation->get_properties();
    auto& rebased = *fresh;
    for (unsigned long i = 0; i < rebased.size(); ++i) {
        auto& target = rebased[i];
        target.clear_dirty();
        if (named[i] && context[i].is_dirty()) {
            target.copy_from(context[i]);
            target.set_dirty();
        }
    }
    return rebased;
}

void InterfaceState::Impl::notify_property_dirty(IPropertyEx& property, unsigned long index)
{
    check_not_constant(property);
    property.clear_dirty();
    std::shared_lock lock(mutex);
    for (auto* wrapper : wrappers)
        wrapper->set_dirty(index);
}

InterfaceState::InterfaceState(IInterfaceImplementation& implementation, ConstString name,
    std::shared_ptr<IPropertyExCollection> properties, glue::ICollection<glue::IMethod>& methods,
    glue::ICollection<glue::ISignal>& signals)
    : impl_(std::make_unique<Impl>(implementation, name, std::move(properties), methods, signals))
{
}

InterfaceState::~InterfaceState()
{
    std::list<InterfaceWrapper*> wrappers;
    {
        std::unique_lock lock(impl_->mutex);
        wrappers.swap(impl_->wrappers);
    }
    for (auto* wrapper : wrappers)
        wrapper->detach_from_state();
}

ConstString InterfaceState::interface_name() const
{
    return impl_->name;
}

IPropertyExCollection& InterfaceState::properties()
{
    return *impl_->properties;
}

IPropertyExCollection const& InterfaceState::properties() const
{
    return *impl_->properties;
}

glue::ICollection<glue::IMethod>& InterfaceState::methods()
{
    return impl_->methods;
}

glue::ICollection<glue::IMethod> const& InterfaceState::methods() const
{
    return impl_->methods;
}

glue::ICollection<glue::ISignal>& InterfaceState::signals()
{
    return impl_->signals;
}

glue::ICollection<glue::ISignal> const& InterfaceState::signals() const
{
    return impl_->signals;
}

std::shared_mutex& InterfaceState::state_mutex() const
{
    return impl_->mutex;
}

void InterfaceState::set_interface_impl(IInterfaceImplementation& implementation)
{
    impl_->implementation = &implementation;
}

void InterfaceState::set_parent_object(tarvek::Object* object)
{
    impl_->parent_object = object;
}

tarvek::Object* InterfaceState::get_parent_object()
{
    return impl_->parent_object;
}

tarvek::Object const* InterfaceState::get_parent_object() const
{
    return impl_->parent_object;
}

void InterfaceState::on_added_to_object(tarvek::Object& object, detail::executors::Injector injector)
{
    impl_->parent_object = &object;
    impl_->injector = std::move(injector);
}

boost::future<void> InterfaceState::set_many(
    glue::IIterator<std::pair<glue::IProperty&, glue::IDeserializer&>>& values,
    glue::IIterator<glue::IProperty&>& resets)
{
    std::shared_lock lock(impl_->mutex);
    boost::promise<void> promise;
    auto result = promise.get_future();
    if (impl_->implementation == nullptr) {
        // Into the future, not out of the call: a server treats a removed object like any
        // late failure.
        try {
            boost::throw_exception(invalid_argument("Object removed"));
        } catch (...) {
            promise.set_exception(boost::current_exception());
        }
        return result;
    }

    auto context = impl_->implementation->get_properties();
    // What the batch names, changed or not: the commit lays the batch over the live values,
    // and a named value must survive it even where it equals the value read here.
    std::vector<bool> named(context->size());
    auto counterpart = [&context, &named](glue::IProperty& property) -> IPropertyEx& {
        // Every property a server is given is one of the committed set's, hence an IPropertyEx.
        auto const index = static_cast<IPropertyEx&>(property).index();
        auto& target = (*context)[index];
        // No client ever writes a constant property: it is published as read-only.
        if (glue::change_signal_of(target) == glue::ChangeSignal::constant)
            boost::throw_exception(property_readonly(str::join("Property ", target.name(), " is constant")));
        if (target.is_readonly())
            boost::throw_exception(property_readonly(str::join("Property ", target.name(), " is readonly")));
        named.at(index) = true;
        return target;
    };
    for (; !values.at_end(); values.advance()) {
        auto entry = values.value();
        counterpart(entry.first).deserialize(entry.second);
    }
    for (; !resets.at_end(); resets.advance())
        counterpart(resets.value()).reset();

    // The task shares the state: on a shared executor the object can go before it runs.
    // It carries the server's caller, for validate and on_changed to see.
    impl_->injector.submit([state = shared_from_this(), context = std::move(context),
                               named = std::move(named), promise = std::move(promise),
                               caller = copy_current_caller()]() mutable {
        CallerScope const scope(caller ? &*caller : nullptr);
        try {
            std::unique_lock exclusive(state->impl_->mutex);
            if (!state->impl_->commit_batch(*context, named))
                state->impl_->raise_validation_failed();
            // Under the lock, so that the continuation is queued on the server before
            // other readers get in; submitting takes only the executor's leaf lock.
            promise.set_value();
        } catch (...) {
            // If set_value itself failed, the promise is satisfied already and this
            // raises in turn, to the loop that drives the object's executor.
            promise.set_exception(capture_current_exception());
        }
    });
    return result;
}

boost::future<std::unique_ptr<glue::IMethodReturnValue>> InterfaceState::method_call(
    IMethodEx& method, glue::IIterator<glue::IDeserializer&>& arguments)
{
    std::shared_lock lock(impl_->mutex);
    if (impl_->implementation == nullptr)
        boost::throw_exception(invalid_argument("Object removed"));
    auto call = method.bind(impl_->implementation->method_target(), arguments);
    boost::promise<std::unique_ptr<glue::IMethodReturnValue>> promise;
    auto result = promise.get_future();
    // The body runs with no lock held; completing the promise, now or later, is its business.
    // `keep` holds the committed set, which owns the methods of a typed interface, for as
    // long as the call is queued: the last wrapper may go before the task runs.
    // The caller, named by the server on this thread, goes with the call to the executor.
    impl_->injector.submit([keep = impl_->properties, method = &method, call = std::move(call),
                               promise = std::move(promise), caller = copy_current_caller()]() mutable {
        CallerScope const scope(caller ? &*caller : nullptr);
        method->invoke(*call, promise);
    });
    return result;
}

void InterfaceState::set_properties(IPropertyExCollection const& new_values)
{
    // A local commit has no caller, even when a method handler makes it.
    CallerScope const no_caller(nullptr);
    std::unique_lock lock(impl_->mutex);
    auto context = impl_->implementation->get_properties();
    for (unsigned long i = 0; i < context->size(); ++i)
        (*context)[i].clear_dirty();
    if (context->size() != new_values.size())
        boost::throw_exception(internal_error("PropertySet mismatch"));

    unsigned long changed = 0;
    for (unsigned long i = 0; i < new_values.size(); ++i) {
        auto const& source = new_values[i];
        auto& target = (*context)[i];
        if (source.is_dirty() && !source.equals(target)) {
            impl_->check_not_constant(target);
            target.copy_from(source);
            target.set_dirty();
            ++changed;
        }
    }
    if (changed == 0)
        return;
    if (!impl_->apply_new_context(*context))
        impl_->raise_validation_failed();
}

void InterfaceState::notify_property_dirty(unsigned long index)
{
    impl_->notify_property_dirty((*impl_->properties)[index], index);
}

void InterfaceState::emit_signal(glue::ISignal& signal, std::shared_ptr<glue::ISignalValue> value)
{
    std::shared_lock lock(impl_->mutex);
    for (auto* wrapper : impl_->wrappers)
        wrapper->emit_signal(signal, value);
}

void InterfaceState::add_wrapper(InterfaceWrapper& wrapper)
{
    std::unique_lock lock(impl_->mutex);
    auto& wrappers = impl_->wrappers;
    if (std::find(wrappers.begin(), wrappers.end(), &wrapper) != wrappers.end())
        boost::throw_exception(internal_error("Wrapper already added"));
    wrappers.push_back(&wrapper);
}

bool InterfaceState::try_remove_wrapper(InterfaceWrapper const& wrapper)
{
    std::unique_lock lock(impl_->mutex);
    auto& wrappers = impl_->wrappers;
    auto const found = std::find(wrappers.begin(), wrappers.end(), &wrapper);
    if (found == wrappers.end())
        return false;
    wrappers.erase(found);
    return true;
}

void InterfaceState::flag_as_removed(bool removed)
{
    // Takes each wrapper's call mutex under this shared lock, against the usual order. That
    // is harmless while both sides hold the state mutex only shared and the platform's
    // reader-writer lock lets readers in past a waiting writer.
    std::shared_lock lock(impl_->mutex);
    impl_->published = !removed;
    for (auto* wrapper : impl_->wrappers)
        wrapper->flag_as_removed(removed);
}

void InterfaceState::detach_from_impl() noexcept
{
    try {
        std::unique_lock lock(impl_->mutex);
        impl_->implementation = nullptr;
    } catch (...) {
        std::cerr << "WARNING: Unexpected exception caught in InterfaceState::detach_from_impl()\n";
    }
}

} // namespace tarvek::provider
