// SPDX-License-Identifier: LGPL-2.1-or-later
// The members of an interface as a protocol server sees them: properties with their
// ranges, methods with their results, signals with their values. Names and signatures are
// ConstStrings whose characters live as long as the member; signatures are D-Bus type
// signatures and NUL-terminated. Values cross only by writing themselves to an
// ISerializer or reading themselves from an IDeserializer.
#pragma once

#include <tarvek/common/const_string.hpp>
#include <tarvek/glue/collection.hpp>
#include <tarvek/glue/serializer.hpp>

namespace tarvek::glue {

// One entry of a property's ranges: one, two or three values of the property's type.
class IPropertyRange {
public:
    virtual ~IPropertyRange() = default;
    virtual bool has_second() const = 0;
    virtual bool has_third() const = 0;
    virtual void serialize_first(ISerializer& sink) const = 0;
    // Called only if has_second().
    virtual void serialize_second(ISerializer& sink) const = 0;
    // Called only if has_third().
    virtual void serialize_third(ISerializer& sink) const = 0;
};

// How a change of a property's value is announced on the bus: with the new value (the
// default), by name only, never because the value is fixed once its object is published, or
// not at all.
enum class ChangeSignal : unsigned char { emits, invalidates, constant, none };

class IProperty {
public:
    virtual ~IProperty() = default;
    virtual ConstString name() const = 0;
    virtual ConstString signature() const = 0;
    virtual void serialize(ISerializer& sink) const = 0;
    virtual bool is_default() const = 0;
    virtual void serialize_default(ISerializer& sink) const = 0;
    virtual bool is_readonly() const = 0;
    // provider::range::EmptyRangeCollection::instance where none are declared.
    virtual ICollection<IPropertyRange> const& ranges() const = 0;
};

class IMethod {
public:
    virtual ~IMethod() = default;
    virtual ConstString name() const = 0;
    // Empty for a method without results.
    virtual ConstString result_signature() const = 0;
    virtual ConstString parameter_signature() const = 0;
};

// The outcome of a finished call, owned by the receiver. A successful future never
// delivers a null pointer.
class IMethodReturnValue {
public:
    virtual ~IMethodReturnValue() = default;
    virtual void serialize(ISerializer& sink) = 0;
};

class ISignal {
public:
    virtual ~ISignal() = default;
    virtual ConstString name() const = 0;
    virtual ConstString signature() const = 0;
};

// The values of one emission, shared by all servers; serialize may be called any number
// of times, from each server's own thread.
class ISignalValue {
public:
    virtual ~ISignalValue() = default;
    virtual void serialize(ISerializer& sink) const = 0;
};

// The names of a method's or a signal's arguments, for introspection. A member that names
// its arguments implements this besides IMethod or ISignal, and a server finds it with
// dynamic_cast; a member without it has unnamed arguments. A class of its own, because a
// new operation in IMethod would move those of the provider's IMethodEx that follow it.
class IArgumentNames {
public:
    virtual ~IArgumentNames() = default;
    // Every name followed by a NUL, a method's parameters first and then its results, a
    // signal's values in order; size() counts all of it but the final NUL. Either every
    // argument has a name, one that is valid as a D-Bus member name, or this is empty.
    virtual ConstString argument_names() const = 0;
};

// What a property may implement besides IProperty to say how its changes are announced. A
// class of its own rather than a new operation of IProperty, whose virtual table classes
// derived from it extend: a property without it announces its changes with their values.
class IPropertyChange {
public:
    virtual ~IPropertyChange() = default;
    virtual ChangeSignal change_signal() const = 0;
};

inline ChangeSignal change_signal_of(IProperty const& property)
{
    auto const* const announced = dynamic_cast<IPropertyChange const*>(&property);
    return announced ? announced->change_signal() : ChangeSignal::emits;
}

} // namespace tarvek::glue
