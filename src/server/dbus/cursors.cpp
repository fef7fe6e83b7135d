// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/cursors.hpp"

#include <systemd/sd-bus.h>

#include <cstring>

namespace tarvek::server::dbus {

namespace {

char const* name_at(NameList::Iterator const& position)
{
    if (!position.position())
        boost::throw_exception(tarvek::out_of_range("no members left in array"));
    return *position.position();
}

} // namespace

MethodParameterIterator::MethodParameterIterator(SDBusInboundMessage& message) noexcept
    : message(message), deserializer(message.get())
{}

void MethodParameterIterator::advance() {}

bool MethodParameterIterator::at_end() const
{
    // 1 asks for the end of the whole message, not of a container.
    return sd_bus_message_at_end(message.get(), 1) != 0;
}

glue::IDeserializer& MethodParameterIterator::value()
{
    return deserializer;
}

SetManyIterator::SetManyIterator(SDBusInboundMessage& message, ConstString interface,
                                 PropertyMap const& properties)
    : message(message), array(message, SD_BUS_TYPE_ARRAY, "(sv)"), interface(interface),
      properties(properties), deserializer(message.get())
{}

void SetManyIterator::advance()
{
    if (finished)
        boost::throw_exception(tarvek::range_error("No more properties in iterator"));
    variant.reset();
    tuple.reset();
    finished = sd_bus_message_at_end(message.get(), 0) != 0;
}

bool SetManyIterator::at_end() const
{
    return finished;
}

std::pair<glue::IProperty&, glue::IDeserializer&> SetManyIterator::value()
{
    if (tuple || variant)
        boost::throw_exception(tarvek::internal_error("SetManyIterator: do advance() between calls to value()"));
    tuple = std::make_unique<InboundContainerGuard>(message, SD_BUS_TYPE_STRUCT, "sv");
    std::string const name = deserializer.read_string();
    glue::IProperty& property = find_property(interface, properties, name);
    variant = std::make_unique<InboundContainerGuard>(message, SD_BUS_TYPE_VARIANT, property.signature());
    return {property, deserializer};
}

ResetIterator::ResetIterator(NameList& names, ConstString interface, PropertyMap const& properties)
    : interface(interface), properties(properties), begin(names.begin()), end(names.end())
{}

void ResetIterator::advance()
{
    if (begin == end)
        boost::throw_exception(tarvek::range_error("No more properties in iterator"));
    ++begin;
}

bool ResetIterator::at_end() const
{
    return begin == end;
}

glue::IProperty& ResetIterator::value()
{
    return find_property(interface, properties, std::string(name_at(begin)));
}

GetManyIterator::GetManyIterator(NameList& names, ConstString interface, PropertyMap const& properties,
                                 SDBusOutboundMessage const& reply)
    : interface(interface), properties(properties), begin(names.begin()), end(names.end()), serializer(reply)
{}

void GetManyIterator::advance()
{
    if (begin == end)
        boost::throw_exception(tarvek::range_error("No more properties in iterator"));
    if (entry_open) {
        serializer.close();
        serializer.close();
        entry_open = false;
    }
    ++begin;
}

bool GetManyIterator::at_end() const
{
    return begin == end;
}

std::pair<glue::IProperty const&, glue::ISerializer&> GetManyIterator::value()
{
    glue::IProperty const& property = find_property(interface, properties, std::string(name_at(begin)));
    if (!entry_open) {
        budget.charge_entry(property.name().size());
        budget.charge(2 + std::strlen(property.signature()));
        serializer.open(SD_BUS_TYPE_DICT_ENTRY, "sv");
        append_string_argument(serializer.message.get(), property.name());
        serializer.open(SD_BUS_TYPE_VARIANT, property.signature());
        entry_open = true;
    }
    return {property, bounded};
}

} // namespace tarvek::server::dbus
