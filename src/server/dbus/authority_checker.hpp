// SPDX-License-Identifier: LGPL-2.1-or-later
// AuthorityChecker: the gate between a bus request and the provider. User finds out who
// sent a message; the checker turns what the sender wants into an action name of the
// access policy and the answer into a Result with a ready bus error.
//
// User asks the bus daemon once for the sender's euid and pid; the handler of the request
// gets them with the sender's name and the user name as a tarvek::Caller.
//
// Action names are built from the bus names: the interface name followed by ".read", by
// ".write." and the property name, or by ".call." and the method name. The policy sees
// them in lower case, while error texts keep the case of the bus names.
//
// Everything runs on the thread that serves the bus (getpwuid's static result is copied at
// once) and blocks for as long as the policy library takes. Nothing is cached.
#pragma once

#include "common/vrel.hpp"
#include "server/dbus/sdbus_error.hpp"

#include <tarvek/common/caller.hpp>
#include <tarvek/common/const_string.hpp>

#include <string>

namespace tarvek::server::dbus {

class AuthorityChecker {
public:
    // The sender of one message, for one check.
    class User {
    public:
        // Raises tarvek::system_error "Could not get sender creds" or "Could not read euid
        // from creds". A sender without a unique name or without a user entry isn't an
        // error here: the user is merely not `valid`.
        explicit User(sd_bus_message* message);
        User(User const&) = delete;
        User& operator=(User const&) = delete;
        ~User();

        // Who this is, for the handler or validate that the request reaches.
        tarvek::Caller caller() const;

        sd_bus_creds* creds = nullptr;
        std::string sender;
        std::string username;
        uid_t uid = static_cast<uid_t>(-1);
        // 0 when the bus can't tell it.
        pid_t pid = 0;
        bool valid = false;
    };

    struct Result {
        bool allowed = false;
        // Empty when allowed; else the error to send to the client.
        SDBusError error;
    };

    explicit AuthorityChecker(common::Vrel& vrel) noexcept : vrel(vrel) {}

    Result check_property_read(User const& user, ConstString interface) const;
    Result check_property_write(User const& user, ConstString interface, ConstString property) const;
    Result check_method_call(User const& user, ConstString interface, ConstString method) const;

private:
    Result check(User const& user, std::string const& action) const;

    common::Vrel& vrel;
};

} // namespace tarvek::server::dbus
