// SPDX-License-Identifier: LGPL-2.1-or-later
// What an application's interface code implements: the interface object
// (IInterfaceImplementation, usually through InterfaceImplementationBase), its property set
// (IPropertyExCollection of IPropertyEx) and its methods (IMethodEx). These extend the glue
// classes that protocol servers see with what the runtime needs for atomic writes: working
// copies, dirty marks, and method calls split into reading arguments and running the body.
//
// Threads: bind, deserialize and reset run on a server's thread, on private copies; validate
// and on_changed run under the interface's state mutex held exclusively; invoke runs on the
// object's executor with no lock held. The read operations of a live property (serialize,
// is_default, serialize_default, ranges) may run on server threads at any time and must be
// safe against a concurrent commit by themselves.
//
// Lifetime: the method and signal collections and the characters of every name and
// signature must outlive all protocol servers' wrappers, which keep references to them after
// the implementation object has gone. The committed property set is shared with the runtime.
#pragma once

#include <tarvek/glue/collection.hpp>
#include <tarvek/glue/members.hpp>
#include <tarvek/glue/serializer.hpp>

#include <boost/thread/future.hpp>

#include <memory>

namespace tarvek {
class Object;
} // namespace tarvek

namespace tarvek::provider {

class InterfaceState;

// A property as the runtime handles it. The dirty mark says that this object's value was
// changed and that the change hasn't been passed on yet; it is the one signal by which a
// commit learns what to report.
class IPropertyEx : public glue::IProperty {
public:
    // Reads a new value; sets the dirty mark when the value changes.
    virtual void deserialize(glue::IDeserializer& source) = 0;
    // Sets the default value; sets the dirty mark when the value changes.
    virtual void reset() = 0;
    virtual void set_dirty() = 0;
    virtual void clear_dirty() = 0;
    virtual bool is_dirty() const = 0;
    // The place of the property in its collection.
    virtual unsigned short index() const = 0;
    // Called for every property at every commit; must not fail, as a commit can't be undone.
    // It must take the value of a source that carries the dirty mark; whether it takes that
    // of a clean one is the implementation's choice, as the runtime commits only working
    // copies whose clean properties equal the live values.
    virtual void copy_from(IPropertyEx const& other) = 0;
    // A commit compares a working copy with the live properties, under the state mutex held
    // exclusively, to find what moved since the copy was read.
    virtual bool equals(IPropertyEx const& other) const = 0;
};

// A property set. The first base is the view given to protocol servers, the second the one
// the runtime uses; both have the same size and give the same property at each index, and
// the property at index i has index() == i. Owned through std::shared_ptr when committed and
// std::unique_ptr as a working copy; destroyed through the first base.
class IPropertyExCollection : public glue::ICollection<glue::IProperty>,
                              public glue::ICollection<IPropertyEx> {
public:
    // One overrider for both bases, so that a caller needn't say which view it means.
    unsigned long size() const override = 0;
    IPropertyEx& operator[](unsigned long index) override = 0;
    IPropertyEx const& operator[](unsigned long index) const override = 0;
};

// The properties of a working copy that a commit changed, in rising index order.
class IChangedProperties : public glue::ICollection<glue::IProperty> { };

// The arguments of one call as bind() read them; the runtime only carries and destroys it.
class IBoundCall {
public:
    virtual ~IBoundCall() = default;
};

class IMethodEx : public glue::IMethod {
public:
    // Runs on the object's executor. Must set a value or an exception in `promise`, now or
    // later (it may move the promise out to answer asynchronously), and must not let an
    // exception out: one that escapes reaches the thread driving the executor, and the
    // client sees a broken promise.
    virtual void invoke(IBoundCall& call, boost::promise<std::unique_ptr<glue::IMethodReturnValue>>& promise)
        = 0;
    // Runs on the caller's thread and reads every argument before it returns, in the order
    // of parameter_signature(): value() once and advance() once per parameter. `target` is
    // what IInterfaceImplementation::method_target() returned.
    virtual std::unique_ptr<IBoundCall> bind(void* target, glue::IIterator<glue::IDeserializer&>& arguments)
        = 0;
};

class IInterfaceImplementation {
public:
    virtual ~IInterfaceImplementation() = default;

    virtual ConstString interface_name() const = 0;
    // A new collection with the committed values, same size and order. Called with the state
    // mutex held (shared or exclusively) and also with no lock at all, so it takes none.
    virtual std::unique_ptr<IPropertyExCollection> get_properties() const = 0;
    // Replaces the properties by a working copy whose changed properties carry their dirty
    // mark; hands it to InterfaceState::set_properties.
    virtual void set_properties(IPropertyExCollection& context) = 0;
    virtual void internal_set_parent_object(tarvek::Object* object) = 0;
    virtual tarvek::Object* internal_get_parent_object() = 0;
    virtual tarvek::Object const* internal_get_parent_object() const = 0;
    virtual std::shared_ptr<InterfaceState> internal_get_state() = 0;
    // An opaque word passed to IMethodEx::bind; called under the shared state mutex.
    virtual void* method_target() = 0;
    // False refuses the whole working copy; it sees all properties, changed or not: the
    // values that the write names over the live values of the others at the time of the
    // commit, which is exactly what stands if it returns true. Runs with the state mutex
    // held exclusively, and so must not call notify_property_dirty or emit_signal, nor wait
    // for a thread that does.
    virtual bool validate(IPropertyExCollection& context) = 0;
    // After a commit that changed at least one property, still under the exclusive lock
    // (same restrictions as validate). `changed` views properties of `context`.
    virtual void on_changed(IPropertyExCollection& context, IChangedProperties& changed) = 0;
};

} // namespace tarvek::provider
