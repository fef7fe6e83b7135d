// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/server/dbus/sdbus_message.hpp>

#include "server/dbus/sdbus_error.hpp"

#include <tarvek/common/exceptions.hpp>

#include <boost/throw_exception.hpp>
#include <systemd/sd-bus.h>

namespace tarvek::server::dbus {

SDBusMessage::SDBusMessage(sd_bus_message* message) noexcept : message(sd_bus_message_ref(message)) {}

SDBusMessage::SDBusMessage(SDBusMessage const& other) noexcept : message(sd_bus_message_ref(other.message))
{}

SDBusMessage::~SDBusMessage()
{
    if (message)
        sd_bus_message_unref(message);
}

void SDBusMessage::pop_container() noexcept
{
    if (!containers.empty())
        containers.pop_back();
}

SDBusInboundMessage::~SDBusInboundMessage()
{
    // Lets a reader stop in the middle of a nested argument: whatever it left unread is
    // skipped, so the message stands at the level at which this handle found it.
    // A level that can't be skipped or left ends the unwinding: the message is then not
    // read any further, and nothing is raised from here.
    while (!containers.empty()) {
        // A failing end test counts as the end; the exit then tells whether it was.
        while (sd_bus_message_at_end(message, 0) == 0) {
            if (sd_bus_message_skip(message, nullptr) < 0)
                return;
        }
        pop_container();
        if (sd_bus_message_exit_container(message) < 0)
            return;
    }
}

unsigned long SDBusInboundMessage::enter_container(char type, char const* contents)
{
    int const r = sd_bus_message_enter_container(message, type, contents);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "sd_bus_message_enter_container failed"));
    containers.push_back(type);
    return containers.size();
}

void SDBusInboundMessage::exit_container()
{
    pop_container();
    int const r = sd_bus_message_exit_container(message);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "sd_bus_message_exit_container failed"));
}

namespace {

sd_bus_message* reply_call(SDBusInboundMessage const& call)
{
    if (!call.get())
        boost::throw_exception(tarvek::invalid_argument("empty message"));
    return call.get();
}

} // namespace

SDBusOutboundMessage::SDBusOutboundMessage(SDBusInboundMessage const& call)
{
    // sd-bus hands over the only reference of the new message, which this handle adopts.
    int const r = sd_bus_message_new_method_return(reply_call(call), &message);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "Could not create reply message"));
}

SDBusOutboundMessage::SDBusOutboundMessage(SDBusInboundMessage const& call, SDBusError&& error)
{
    int const r = sd_bus_message_new_method_error(reply_call(call), &message, &error);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "Could not create reply message"));
}

SDBusOutboundMessage::SDBusOutboundMessage(sd_bus_message* message) noexcept : SDBusMessage(message) {}

SDBusOutboundMessage::~SDBusOutboundMessage()
{
    // A message that is destroyed with open levels is never sent; a level that can't be
    // closed is left as it is.
    while (!containers.empty()) {
        pop_container();
        if (sd_bus_message_close_container(message) < 0)
            return;
    }
}

unsigned long SDBusOutboundMessage::open_container(char type, char const* contents)
{
    containers.push_back(type);
    int const r = sd_bus_message_open_container(message, type, contents);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "sd_bus_message_open_container failed"));
    return containers.size();
}

void SDBusOutboundMessage::close_container()
{
    pop_container();
    int const r = sd_bus_message_close_container(message);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "sd_bus_message_close_container failed"));
}

void SDBusOutboundMessage::send()
{
    if (!containers.empty())
        boost::throw_exception(tarvek::invalid_state_error("Bad state: Inside a container"));
    if (!message)
        boost::throw_exception(tarvek::invalid_state_error("Send: no message to send"));
    sd_bus* const bus = sd_bus_message_get_bus(message);
    if (!bus)
        boost::throw_exception(tarvek::invalid_state_error("Send: message has no bus"));
    int const r = sd_bus_send(bus, message, nullptr);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "send failed"));
}

} // namespace tarvek::server::dbus
