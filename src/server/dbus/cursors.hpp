// SPDX-License-Identifier: LGPL-2.1-or-later
// The server-side cursors through which glue::IInterface reads the arguments of a bus
// message and writes a reply: set_many gets properties with their sources, get_many
// properties with a sink, call_method one source per parameter. They walk the message in
// place, so no list of names or values is ever built.
//
// All cursors are stack objects of one sd-bus callback, on the thread that serves the bus,
// and must not outlive it; the consumer's loop of glue::IIterator is assumed (at_end,
// then value once, then advance).
#pragma once

#include "server/dbus/bus_arguments.hpp"
#include "server/dbus/reply_budget.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/glue/collection.hpp>
#include <tarvek/glue/members.hpp>
#include <tarvek/serialization/sdbus_deserializer.hpp>
#include <tarvek/serialization/sdbus_serializer.hpp>

#include <boost/throw_exception.hpp>

#include <memory>
#include <utility>

namespace tarvek::server::dbus {

// The parameters of a method call: the source itself moves through the message as the
// method reads it, so advance() has nothing to do.
class MethodParameterIterator final : public glue::IIterator<glue::IDeserializer&> {
public:
    explicit MethodParameterIterator(SDBusInboundMessage& message) noexcept;

    void advance() override;
    // True at the end of the whole message.
    bool at_end() const override;
    glue::IDeserializer& value() override;

private:
    SDBusInboundMessage& message;
    serialization::SDBusDeserializer deserializer;
};

// The elements of an `a(sv)` argument: each property with the source standing on the
// contents of its variant. Entering the variant with the property's signature is the type
// check of the whole write: a value of another type raises tarvek::system_error (ENXIO)
// before anything is read.
class SetManyIterator final : public glue::IIterator<std::pair<glue::IProperty&, glue::IDeserializer&>> {
public:
    // Enters the array; raises what SDBusInboundMessage::enter_container raises.
    SetManyIterator(SDBusInboundMessage& message, ConstString interface, PropertyMap const& properties);

    // Skips whatever the property left unread. Raises tarvek::range_error "No more
    // properties in iterator" after the end.
    void advance() override;
    bool at_end() const override;
    // Raises tarvek::internal_error "SetManyIterator: do advance() between calls to
    // value()" on a second call without advance(), and tarvek::unknown_property for a name
    // that the interface doesn't have.
    std::pair<glue::IProperty&, glue::IDeserializer&> value() override;

private:
    SDBusInboundMessage& message;
    // Declared outermost first, so that they end innermost first.
    InboundContainerGuard array;
    // The current `(sv)` and `v`; allocated per element, because they stay open across
    // value() and advance() while the property reads.
    std::unique_ptr<InboundContainerGuard> tuple;
    std::unique_ptr<InboundContainerGuard> variant;
    ConstString interface;
    PropertyMap const& properties;
    serialization::SDBusDeserializer deserializer;
    bool finished = false;
};

// The properties named by a NameList, to be reset to their defaults. Starts a walk of the
// list.
class ResetIterator final : public glue::IIterator<glue::IProperty&> {
public:
    ResetIterator(NameList& names, ConstString interface, PropertyMap const& properties);

    // Raises tarvek::range_error "No more properties in iterator" after the end.
    void advance() override;
    bool at_end() const override;
    // Raises tarvek::out_of_range "no members left in array" after the end, and
    // tarvek::unknown_property for a name that the interface doesn't have.
    glue::IProperty& value() override;

private:
    ConstString interface;
    PropertyMap const& properties;
    NameList::Iterator begin;
    NameList::Iterator end;
};

// The properties named by a NameList, each with a sink that stands inside the `{sv}` entry
// of the reply's dictionary that value() opened for it. The entry and its variant count
// as levels of the sink, so that a property whose serialize throws leaves the reply at the
// level of the dictionary when the cursor ends. Starts a walk of the list.
class GetManyIterator final : public glue::IIterator<std::pair<glue::IProperty const&, glue::ISerializer&>> {
public:
    // `reply` stands inside its `a{sv}` array.
    GetManyIterator(NameList& names, ConstString interface, PropertyMap const& properties,
                    SDBusOutboundMessage const& reply);

    // Closes the entry. Raises tarvek::range_error "No more properties in iterator" after
    // the end.
    void advance() override;
    bool at_end() const override;
    // Opens the entry once, however often it is called before advance(). Raises
    // tarvek::out_of_range "no members left in array" after the end, and
    // tarvek::unknown_property for a name that the interface doesn't have.
    std::pair<glue::IProperty const&, glue::ISerializer&> value() override;

private:
    bool entry_open = false;
    ConstString interface;
    PropertyMap const& properties;
    NameList::Iterator begin;
    NameList::Iterator end;
    serialization::SDBusSerializer serializer;
    // Counts the reply as it grows, so that one too large for the bus is never finished.
    ReplyBudget budget;
    BoundedSerializer bounded{serializer, budget};
};

// Exactly one element, which stays available after the end.
template <class T>
class SingleValueIterator final : public glue::IIterator<T> {
public:
    explicit SingleValueIterator(T element) : element(std::forward<T>(element)) {}

    void advance() override { finished = true; }
    bool at_end() const override { return finished; }
    T value() override { return element; }

private:
    T element;
    bool finished = false;
};

// No element at all.
template <class T>
class EmptyIterator final : public glue::IIterator<T> {
public:
    void advance() override {}
    bool at_end() const override { return true; }
    // Raises tarvek::internal_error "No value (empty iterator)".
    T value() override { boost::throw_exception(tarvek::internal_error("No value (empty iterator)")); }
};

} // namespace tarvek::server::dbus
