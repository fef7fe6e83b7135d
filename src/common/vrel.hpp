// SPDX-License-Identifier: LGPL-2.1-or-later
// Vrel: the thin wrapper of the closed access-policy library libvrel2. An instance stands
// for one vrel2_init balanced by one vrel2_release, and has no state of its own; the
// library keeps its state by itself. A move makes a new init, so that the calls stay
// balanced whatever is moved.
//
// No lock: it relies on libvrel2 being callable from the thread that serves the bus.
#pragma once

#include <string>

namespace tarvek::common {

class Vrel {
public:
    // Raises tarvek::internal_error "Could not init vrel library: " and the library's text.
    Vrel();
    // Takes nothing from `other`; initialises the library once more.
    Vrel(Vrel&& other);
    Vrel(Vrel const&) = delete;
    Vrel& operator=(Vrel const&) = delete;
    Vrel& operator=(Vrel&&) = delete;
    ~Vrel();

    // Whether `user` may do `action`. The action is lower-cased on its way to the policy,
    // and only here. Raises tarvek::authorization_failure "Auth check failure: " and the
    // library's text when the policy can't answer.
    bool check(std::string const& user, std::string const& action) const;

private:
    static void init();
};

} // namespace tarvek::common
