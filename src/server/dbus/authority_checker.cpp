// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/authority_checker.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/throw_exception.hpp>
#include <systemd/sd-bus.h>

#include <cerrno>

#include <pwd.h>

namespace tarvek::server::dbus {

AuthorityChecker::User::User(sd_bus_message* message)
{
    // A positive result would mean that sd-bus left the creds out: a failure here too.
    // The destructor won't run for an object that was never made, so the constructor
    // drops the creds itself before it raises.
    // The pid comes in the same answer of the bus daemon as the euid, so that a handler
    // learns its caller without a second round trip.
    int r = sd_bus_query_sender_creds(message, SD_BUS_CREDS_EUID | SD_BUS_CREDS_PID, &creds);
    if (r != 0) {
        sd_bus_creds_unref(creds);
        creds = nullptr;
        // The bus has forgotten the sender (NameHasNoOwner, which sd-bus maps to ENXIO):
        // it left before it could be asked about, and nobody waits for an answer.
        if (r == -ENXIO)
            boost::throw_exception(sender_gone(-r, "Could not get sender creds"));
        boost::throw_exception(tarvek::system_error(-r, "Could not get sender creds"));
    }
    if (message) {
        if (char const* const name = sd_bus_message_get_sender(message))
            sender = name;
    }
    r = sd_bus_creds_get_euid(creds, &uid);
    if (r != 0) {
        sd_bus_creds_unref(creds);
        boost::throw_exception(tarvek::system_error(-r, "Could not read euid from creds"));
    }
    // Not every bus can tell the pid (one reached over TCP can't); the policy doesn't need
    // it, so its absence is no failure: the caller then has pid 0.
    if (sd_bus_creds_get_pid(creds, &pid) < 0)
        pid = 0;
    if (passwd const* const entry = getpwuid(uid)) {
        username = entry->pw_name;
        valid = !sender.empty() && !username.empty();
    }
}

tarvek::Caller AuthorityChecker::User::caller() const
{
    return tarvek::Caller{sender, uid, pid, username};
}

AuthorityChecker::User::~User()
{
    sd_bus_creds_unref(creds);
}

AuthorityChecker::Result AuthorityChecker::check_property_read(User const& user, ConstString interface) const
{
    return check(user, str::join(interface, ".read"));
}

AuthorityChecker::Result AuthorityChecker::check_property_write(User const& user, ConstString interface,
                                                                ConstString property) const
{
    return check(user, str::join(interface, ".write.", property));
}

AuthorityChecker::Result AuthorityChecker::check_method_call(User const& user, ConstString interface,
                                                             ConstString method) const
{
    return check(user, str::join(interface, ".call.", method));
}

AuthorityChecker::Result AuthorityChecker::check(User const& user, std::string const& action) const
{
    Result result;
    SDBusError error;
    if (!user.valid) {
        error.result = sd_bus_error_set(&error, SD_BUS_ERROR_ACCESS_DENIED, "Failed to lookup sender/username");
    } else {
        try {
            if (vrel.check(user.username, action)) {
                result.allowed = true;
                return result;
            }
            error.result = sd_bus_error_setf(&error, SD_BUS_ERROR_ACCESS_DENIED,
                                             "Sender %s / %s not permitted to do action %s",
                                             user.sender.c_str(), user.username.c_str(), action.c_str());
        } catch (...) {
            // So that a client can tell a refusal from a policy that couldn't be consulted.
            error = convert_exception(std::current_exception());
        }
    }
    result.error = std::move(error);
    return result;
}

} // namespace tarvek::server::dbus
