// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/bus_arguments.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/throw_exception.hpp>
#include <systemd/sd-bus.h>

#include <stdexcept>

namespace tarvek::server::dbus {

char const* read_string_argument(sd_bus_message* message)
{
    char const* text = nullptr;
    int const r = sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text);
    if (r == 0)
        boost::throw_exception(tarvek::length_error("No more elements to read"));
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "could not read"));
    return text;
}

void append_string_argument(sd_bus_message* message, char const* text)
{
    int const r = sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, text);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "could not append"));
}

glue::IProperty& find_property(ConstString interface, PropertyMap const& properties, std::string const& name)
{
    try {
        return properties.at(name);
    } catch (std::out_of_range const&) {
        boost::throw_exception(
            tarvek::unknown_property(str::join("Interface: ", interface, " has no property named ", name)));
    }
}

OutboundContainerGuard::OutboundContainerGuard(SDBusOutboundMessage& message, char type, char const* contents)
    : message(message), level(message.open_container(type, contents))
{}

OutboundContainerGuard::~OutboundContainerGuard()
{
    // Mostly reached while an exception unwinds: a second failure here is dropped, and
    // the message it concerns is dropped with the reply that was being built.
    try {
        end();
    } catch (...) {
    }
}

void OutboundContainerGuard::end()
{
    if (level == 0)
        return;
    if (level != message.depth())
        boost::throw_exception(tarvek::invalid_state_error(str::join("Unexpected container level ", level)));
    level = 0;
    message.close_container();
}

InboundContainerGuard::InboundContainerGuard(SDBusInboundMessage& message, char type, char const* contents)
    : message(message), level(message.enter_container(type, contents))
{}

InboundContainerGuard::~InboundContainerGuard()
{
    // A message that can't be skipped (a value sd-bus refuses to read) fails the request
    // once, where it was first met; here, often during that very unwinding, it is dropped.
    try {
        end();
    } catch (...) {
    }
}

void InboundContainerGuard::end()
{
    if (level == 0)
        return;
    // A failing end test counts as the end.
    while (sd_bus_message_at_end(message.get(), 0) == 0) {
        int const r = sd_bus_message_skip(message.get(), nullptr);
        if (r < 0)
            boost::throw_exception(tarvek::system_error(-r, "could not skip"));
    }
    // The same words as the outbound guard's, but an internal_error: an inbound level
    // can only go wrong inside the library.
    if (level != message.depth())
        boost::throw_exception(tarvek::internal_error(str::join("Unexpected container level ", level)));
    level = 0;
    message.exit_container();
}

NameList::NameList(SDBusInboundMessage& message) : guard(message, SD_BUS_TYPE_ARRAY, "s") {}

void NameList::read_next()
{
    try {
        current = read_string_argument(guard.get());
    } catch (tarvek::length_error const&) {
        current = nullptr;
        done = true;
    }
}

NameList::Iterator NameList::begin()
{
    // Back to the first element of the entered array.
    int const r = sd_bus_message_rewind(guard.get(), 0);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "could not rewind"));
    done = false;
    read_next();
    return Iterator(&current, this);
}

NameList::Iterator& NameList::Iterator::operator++()
{
    list->read_next();
    if (list->done)
        name = nullptr;
    return *this;
}

} // namespace tarvek::server::dbus
