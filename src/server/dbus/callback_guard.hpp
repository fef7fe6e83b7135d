// SPDX-License-Identifier: LGPL-2.1-or-later
// The one guard around every function that sd-bus calls back: method handlers, the object
// callback, property getters and filters. sd-bus is C; an exception that unwinds through
// its frames leaves the connection half-dispatched, and every later sd_bus_process() then
// fails. So nothing leaves a callback but its integer result:
//
// - a handler that fails answers the client with the bus error of the exception, through
//   send_error_reply, and if even that fails, the request is dropped;
// - a getter fills sd-bus's error instead, and sd-bus makes the one error reply of the
//   Get, GetAll or GetManagedObjects in whose reply the value was to stand;
// - a sender that has left before it could be identified gets nothing, and costs nothing.
//
// Runs on the thread that serves the bus, inside sd_bus_process().
#pragma once

#include "server/dbus/sdbus_error.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/server/dbus/sdbus_message.hpp>

#include <systemd/sd-bus.h>

#include <exception>
#include <string>

namespace tarvek::server::dbus {

namespace guards {

// Sends the error reply for `message`; a reply that can't go out is dropped.
inline void answer_failure(sd_bus_message* message, std::exception_ptr failure) noexcept
{
    try {
        send_error_reply(SDBusInboundMessage(message), failure);
    } catch (...) {
        // send_error_reply has said so on std::cerr; the client's time-out applies.
    }
}

} // namespace guards

// Runs `body`, an sd-bus message handler's work, and returns what sd-bus needs to hear.
// The body returns 1 when it has taken over the reply, the negative result of
// send_error_reply when it has sent an error itself, or a negative result with `error`
// filled for sd-bus to answer. Whatever it raises becomes the error reply to `message`.
//
// sd-bus answers every negative result once more, from the errno value when `error` is
// empty: a client would get a second error, named after the errno that the first error's
// name maps to ("org.freedesktop.DBus.Error.Failed" becomes "AccessDenied: Permission
// denied"). So once the library has answered, sd-bus is told that the call is handled.
template <class Body>
int guard_handler(sd_bus_message* message, sd_bus_error* error, Body&& body) noexcept
{
    try {
        int const r = body();
        if (r < 0 && !sd_bus_error_is_set(error))
            return 1;
        return r;
    } catch (sender_gone const&) {
        return 1;
    } catch (std::exception const&) {
        guards::answer_failure(message, std::current_exception());
        return 1;
    } catch (...) {
        return 1;
    }
}

// Runs `body`, a property getter's work. A failure is put into `error` as its bus error,
// and the negative errno value that goes with it is returned: sd-bus then drops the
// message under construction and answers the call, if there is one, with `error`.
template <class Body>
int guard_getter(sd_bus_error* error, Body&& body) noexcept
{
    try {
        return body();
    } catch (std::exception const&) {
        try {
            SDBusError converted = convert_exception(std::current_exception());
            sd_bus_error_free(error);
            int const r = sd_bus_error_move(error, &converted);
            return r < 0 ? r : -EIO;
        } catch (...) {
            return -EIO;
        }
    } catch (...) {
        return -EIO;
    }
}

} // namespace tarvek::server::dbus
