// SPDX-License-Identifier: LGPL-2.1-or-later
// The bus error value and the one way from an exception to a bus client. SDBusError is an
// sd_bus_error with the errno value that sd-bus maps its name to; convert_exception picks
// the bus error name by the exception's class alone and keeps what() as the text;
// send_error_reply is the only place where an error reply leaves the library.
//
// Bus error names of the library, and what raises them:
//   "org.freedesktop.DBus.Error.UnknownMethod"      tarvek::unknown_method
//   "org.freedesktop.DBus.Error.UnknownProperty"    tarvek::unknown_property
//   "org.freedesktop.DBus.Error.UnknownInterface"   tarvek::unknown_interface
//   "org.freedesktop.DBus.Error.PropertyReadOnly"   tarvek::property_readonly, and the
//                                                   single-value write of a read-only property
//   "org.freedesktop.DBus.Error.AuthFailed"         tarvek::authorization_failure
//   "org.freedesktop.DBus.Error.AccessDenied"       tarvek::access_denied, and the access policy
//   "org.freedesktop.DBus.Error.InvalidArgs"        tarvek::validation_failed,
//                                                   tarvek::invalid_argument, tarvek::out_of_range
//   "com.omno.Error.RequestLost"                    boost::broken_promise: the object went away
//   "org.freedesktop.DBus.Error.Failed"             any other std::exception
//   "org.freedesktop.DBus.Error.NotSupported"       the sd-bus setter, which no request reaches
//   "org.freedesktop.DBus.Error.InvalidSignature"   a value of the wrong type in a write
//   "org.freedesktop.DBus.Error.LimitsExceeded"     limits_exceeded: a reply or signal that
//                                                   would be too large for the bus
//   the exception's own name                        tarvek::named_error, the application's
//                                                   error, with its text as given
//
// Everything here runs on the thread that serves the bus.
#pragma once

#include <tarvek/common/exceptions.hpp>
#include <tarvek/server/dbus/sdbus_message.hpp>

#include <systemd/sd-bus.h>

#include <exception>
#include <string>

namespace tarvek::server::dbus {

// The sender of a request has left the bus before its credentials could be read: nobody
// is there to answer. Raised by AuthorityChecker::User.
class sender_gone : public tarvek::system_error {
public:
    using system_error::system_error;
};

// A reply or signal would break the bus's limits on message or array size: it is never
// sent, and the client gets "org.freedesktop.DBus.Error.LimitsExceeded" instead.
class limits_exceeded : public tarvek::length_error {
public:
    using length_error::length_error;
};

// The sd_bus_error comes first, so that the object itself is what sd-bus is given.
class SDBusError : public sd_bus_error {
public:
    SDBusError() noexcept;
    // Fills the error with the bus error name of E and what() of `error`. The text passes
    // through a plain "%s", so it may hold any character.
    template <class E>
    explicit SDBusError(E const& error);
    SDBusError(std::string const& name, std::exception const& error);
    // Transfers through sd_bus_error_move; `result` holds what that returned.
    SDBusError(SDBusError&& other) noexcept;
    SDBusError& operator=(SDBusError&& other) noexcept;
    SDBusError(SDBusError const&) = delete;
    SDBusError& operator=(SDBusError const&) = delete;
    // Frees what is left. Owners may free earlier with sd_bus_error_free, which leaves the
    // error empty, so that this becomes a no-op.
    ~SDBusError();

    // The negative errno value that sd-bus maps the name to; 0 for an empty error.
    int result = 0;
};

template <>
SDBusError::SDBusError(tarvek::unknown_method const& error);
template <>
SDBusError::SDBusError(tarvek::unknown_property const& error);
template <>
SDBusError::SDBusError(tarvek::unknown_interface const& error);
template <>
SDBusError::SDBusError(tarvek::property_readonly const& error);
template <>
SDBusError::SDBusError(tarvek::authorization_failure const& error);
template <>
SDBusError::SDBusError(tarvek::access_denied const& error);
template <>
SDBusError::SDBusError(tarvek::validation_failed const& error);
template <>
SDBusError::SDBusError(tarvek::invalid_argument const& error);
template <>
SDBusError::SDBusError(tarvek::out_of_range const& error);

// The bus error for the exception in `error`. An exception that is no std::exception
// leaves this function as it came.
SDBusError convert_exception(std::exception_ptr error);

// Sends the error reply for `call` and returns the `result` of `error`: what an sd-bus
// callback returns after it answered with an error. If the reply can't be built or sent,
// writes "Unable to handle exception: " and what() to std::cerr and raises that exception
// again.
int send_error_reply(SDBusInboundMessage const& call, SDBusError&& error);
// The same for an exception, converted first; the converted error is freed in any case.
int send_error_reply(SDBusInboundMessage const& call, std::exception_ptr error);

} // namespace tarvek::server::dbus
