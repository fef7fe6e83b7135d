// SPDX-License-Identifier: LGPL-2.1-or-later
// InterfaceState: one per interface of an object, shared (always through std::shared_ptr)
// by the application's implementation object and by one wrapper per protocol server. It
// holds the committed property values, the list of wrappers and the state mutex, a
// reader-writer lock that makes a group of property writes atomic.
//
// Writes never touch the committed values directly: set_many reads the new values on the
// caller's thread into a working copy of the whole property set, under the state mutex held
// shared, and a task on the object's executor validates and commits that copy as a whole
// under the mutex held exclusively. A failure before the commit leaves the committed values
// as they were. Method calls likewise read their arguments on the caller's thread and run
// the body on the object's executor, with no lock held.
//
// What validate sees. Other batches and the application may commit between the reading of
// a batch and its commit, so the copy as read can be out of date. Under the exclusive lock
// the batch is therefore laid over the live values first: the properties that it names
// keep the batch's values, every other property takes its live value, and validate judges
// exactly that, the state that stands if it agrees. No interleaving of batches can thus
// commit a state that validate refuses. A named property whose value equals the one read
// but no longer the live one counts as changed, so that the later batch wins on it. The
// copy is compared with the live values property by property; a second copy of the set is
// made only when a property that the batch doesn't name has moved meanwhile.
// set_properties builds its copy from the live values under the same lock, and so judges
// the same way.
//
// Locking: the state mutex nests inside the registry's, the object's and a wrapper's call
// mutex, and outside a wrapper's dirty mutex and the executor's queue mutex. Asking for it
// again on a thread that holds it exclusively (for instance notify_property_dirty or
// emit_signal from validate or on_changed) raises std::system_error (EDEADLK) and doesn't
// hang. The state outlives its implementation object whenever a server still holds a
// wrapper; reads then go on serving the last committed values.
#pragma once

#include <tarvek/common/const_string.hpp>
#include <tarvek/executors/injector.hpp>
#include <tarvek/glue/collection.hpp>
#include <tarvek/glue/members.hpp>
#include <tarvek/provider/interface_implementation.hpp>

#include <boost/thread/future.hpp>

#include <memory>
#include <shared_mutex>
#include <utility>

namespace tarvek {
class Object;
} // namespace tarvek

namespace tarvek::provider {

class InterfaceWrapper;

class InterfaceState : public std::enable_shared_from_this<InterfaceState> {
public:
    // `methods` and `signals` are held by reference and must outlive every wrapper; the
    // property set is shared. Until on_added_to_object the state has no executor, and
    // set_many and method_call raise "Injector.submit(): Executor is closed" after reading.
    InterfaceState(IInterfaceImplementation& implementation, ConstString name,
        std::shared_ptr<IPropertyExCollection> properties, glue::ICollection<glue::IMethod>& methods,
        glue::ICollection<glue::ISignal>& signals);
    InterfaceState(InterfaceState const&) = delete;
    InterfaceState& operator=(InterfaceState const&) = delete;
    ~InterfaceState();

    ConstString interface_name() const;
    // The committed properties.
    IPropertyExCollection& properties();
    IPropertyExCollection const& properties() const;
    glue::ICollection<glue::IMethod>& methods();
    glue::ICollection<glue::IMethod> const& methods() const;
    glue::ICollection<glue::ISignal>& signals();
    glue::ICollection<glue::ISignal> const& signals() const;

    // For wrappers, and for interface code that changes a live property: hold it while
    // changing, and release it before notify_property_dirty.
    std::shared_mutex& state_mutex() const;

    // Plain stores and loads without a lock; used while the object is set up or moved.
    void set_interface_impl(IInterfaceImplementation& implementation);
    void set_parent_object(tarvek::Object* object);
    tarvek::Object* get_parent_object();
    tarvek::Object const* get_parent_object() const;
    void on_added_to_object(tarvek::Object& object, detail::executors::Injector injector);

    // Reads every new value and every reset into a working copy on this thread, then queues
    // the commit. Thrown: tarvek::property_readonly (for a constant property too: "Property
    // <name> is constant"), what the sources or iterators raise,
    // and the executor's submit failures; the first bad property stops the whole batch and
    // nothing changes. In the future: "Object removed" once the implementation is gone,
    // tarvek::validation_failed when validate refuses the batch laid over the live values,
    // and what validate or on_changed raise.
    boost::future<void> set_many(glue::IIterator<std::pair<glue::IProperty&, glue::IDeserializer&>>& values,
        glue::IIterator<glue::IProperty&>& resets);
    // Reads the arguments on this thread and queues method.invoke on the object's executor.
    // The current_caller() of this thread, if any, is current again during invoke (and,
    // for set_many, during validate and on_changed of the commit); set_properties has none.
    // Raises tarvek::invalid_argument "Object removed" once the implementation is gone, and
    // what bind or the executor raise; the rest is the method's business.
    boost::future<std::unique_ptr<glue::IMethodReturnValue>> method_call(
        IMethodEx& method, glue::IIterator<glue::IDeserializer&>& arguments);

    // Commits the dirty properties of `new_values` that differ from the committed ones, on
    // this thread, under the exclusive lock; validate isn't asked when nothing differs. Raises
    // tarvek::internal_error "PropertySet mismatch" for a set of another size,
    // tarvek::invalid_state_error when it would change a constant property while the object
    // is registered, and tarvek::validation_failed when validate refuses. The implementation
    // must exist.
    void set_properties(IPropertyExCollection const& new_values);
    // Tells every server that the live property at `index` has changed; clears its own mark.
    // Raises tarvek::invalid_state_error for a constant property while the object is
    // registered.
    void notify_property_dirty(unsigned long index);
    // Hands the emission to every server at once.
    void emit_signal(glue::ISignal& signal, std::shared_ptr<glue::ISignalValue> value);

    // Wrapper bookkeeping, under the exclusive lock. add_wrapper raises
    // tarvek::internal_error "Wrapper already added".
    void add_wrapper(InterfaceWrapper& wrapper);
    bool try_remove_wrapper(InterfaceWrapper const& wrapper);
    // Flags every wrapper, under the shared lock; the object's attach passes false, its
    // detach true. The same flag says whether constant properties are frozen.
    void flag_as_removed(bool removed);
    // Cuts the state off from its implementation object. Never raises: a failure is written
    // to std::cerr.
    void detach_from_impl() noexcept;

private:
    struct Impl;
    // Allocated once; wrappers and tasks refer to the state by address.
    std::unique_ptr<Impl> const impl_;
};

} // namespace tarvek::provider
