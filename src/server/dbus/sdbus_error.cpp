// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/sdbus_error.hpp"

#include <boost/thread/futures/future_error.hpp>

#include <iostream>
#include <type_traits>

namespace tarvek::server::dbus {

// No table pointer may come before the sd_bus_error: the object starts with it.
static_assert(!std::is_polymorphic_v<SDBusError>);

namespace {

int set_error(sd_bus_error* target, char const* name, std::exception const& error)
{
    // sd_bus_error_setf accepts all names used here; its result is the errno value that
    // sd-bus maps the name to, not a failure to report.
    return sd_bus_error_setf(target, name, "%s", error.what());
}

} // namespace

SDBusError::SDBusError() noexcept : sd_bus_error(SD_BUS_ERROR_NULL) {}

SDBusError::SDBusError(std::string const& name, std::exception const& error) : SDBusError()
{
    result = set_error(this, name.c_str(), error);
}

SDBusError::SDBusError(SDBusError&& other) noexcept : SDBusError()
{
    result = sd_bus_error_move(this, &other);
}

SDBusError& SDBusError::operator=(SDBusError&& other) noexcept
{
    if (this != &other) {
        sd_bus_error_free(this);
        result = sd_bus_error_move(this, &other);
    }
    return *this;
}

SDBusError::~SDBusError()
{
    sd_bus_error_free(this);
}

#define TARVEK_SDBUS_ERROR_NAME(E, NAME)                                                                    \
    template <>                                                                                             \
    SDBusError::SDBusError(E const& error) : SDBusError()                                                   \
    {                                                                                                       \
        result = set_error(this, NAME, error);                                                              \
    }

TARVEK_SDBUS_ERROR_NAME(tarvek::unknown_method, "org.freedesktop.DBus.Error.UnknownMethod")
TARVEK_SDBUS_ERROR_NAME(tarvek::unknown_property, "org.freedesktop.DBus.Error.UnknownProperty")
TARVEK_SDBUS_ERROR_NAME(tarvek::unknown_interface, "org.freedesktop.DBus.Error.UnknownInterface")
TARVEK_SDBUS_ERROR_NAME(tarvek::property_readonly, "org.freedesktop.DBus.Error.PropertyReadOnly")
TARVEK_SDBUS_ERROR_NAME(tarvek::authorization_failure, "org.freedesktop.DBus.Error.AuthFailed")
TARVEK_SDBUS_ERROR_NAME(tarvek::access_denied, "org.freedesktop.DBus.Error.AccessDenied")
TARVEK_SDBUS_ERROR_NAME(tarvek::validation_failed, "org.freedesktop.DBus.Error.InvalidArgs")
TARVEK_SDBUS_ERROR_NAME(tarvek::invalid_argument, "org.freedesktop.DBus.Error.InvalidArgs")
TARVEK_SDBUS_ERROR_NAME(tarvek::out_of_range, "org.freedesktop.DBus.Error.InvalidArgs")

#undef TARVEK_SDBUS_ERROR_NAME

SDBusError convert_exception(std::exception_ptr error)
{
    // Derived classes come before their bases: the three unknown_ classes are out_of_range,
    // and property_readonly is an invalid_argument, yet each has a name of its own.
    try {
        std::rethrow_exception(error);
    } catch (tarvek::unknown_method const& e) {
        return SDBusError(e);
    } catch (tarvek::unknown_property const& e) {
        return SDBusError(e);
    } catch (tarvek::unknown_interface const& e) {
        return SDBusError(e);
    } catch (tarvek::property_readonly const& e) {
        return SDBusError(e);
    } catch (tarvek::authorization_failure const& e) {
        return SDBusError(e);
    } catch (tarvek::access_denied const& e) {
        return SDBusError(e);
    } catch (tarvek::validation_failed const& e) {
        return SDBusError(e);
    } catch (tarvek::invalid_argument const& e) {
        return SDBusError(e);
    } catch (tarvek::out_of_range const& e) {
        return SDBusError(e);
    } catch (tarvek::named_error const& e) {
        // The application's own name; it was checked when the exception was made.
        return SDBusError(e.name(), e);
    } catch (limits_exceeded const& e) {
        return SDBusError("org.freedesktop.DBus.Error.LimitsExceeded", e);
    } catch (boost::broken_promise const& e) {
        // A request whose promise was dropped is told apart from one that failed.
        return SDBusError("com.omno.Error.RequestLost", e);
    } catch (std::exception const& e) {
        return SDBusError("org.freedesktop.DBus.Error.Failed", e);
    }
}

int send_error_reply(SDBusInboundMessage const& call, SDBusError&& error)
{
    int const result = error.result;
    try {
        SDBusOutboundMessage reply(call, std::move(error));
        reply.send();
    } catch (std::exception const& e) {
        std::cerr << "Unable to handle exception: " << e.what() << std::endl;
        throw;
    }
    return result;
}

int send_error_reply(SDBusInboundMessage const& call, std::exception_ptr error)
{
    // The destructor of `converted` frees it whether or not the reply went out.
    SDBusError converted = convert_exception(error);
    return send_error_reply(call, std::move(converted));
}

} // namespace tarvek::server::dbus
