// SPDX-License-Identifier: LGPL-2.1-or-later
// Link-time seams for the D-Bus tests. The test program defines a few C functions of
// libsystemd and libvrel2 itself, so that the library code linked into it calls these
// first. Unarmed, each forwards to the real function; a test arms one through `faults`
// and a Faults scope disarms everything again when it ends. Used from the test's main
// thread only.
#pragma once

#include <optional>
#include <string>

#include <sys/types.h>

namespace tarvek::test {

struct ForcedCheck {
    bool answer;
    int code;
    char const* text;
};

struct FaultSettings {
    // vrel2_check_username answers this without asking the library.
    std::optional<ForcedCheck> check;
    // sd_bus_message_at_end returns this (a negative value) instead of asking sd-bus.
    int at_end = 0;
    // sd_bus_message_skip fails with this (a negative value) after counting the call.
    int skip = 0;
    // sd_bus_message_get_bus yields null.
    bool no_bus = false;
    // sd_bus_query_sender_creds returns this with creds that hold a pid only.
    std::optional<int> creds_result;
    // getpwuid finds no entry for this user.
    std::optional<uid_t> hidden_uid;
};

struct CallCounts {
    int vrel2_init = 0;
    int vrel2_release = 0;
    int vrel2_check = 0;
    int skip = 0;
    int query_sender_creds = 0;
    std::string last_user;
    std::string last_action;
};

extern FaultSettings faults;
extern CallCounts calls;

// Clears settings and counts when made and when it ends.
class Faults {
public:
    Faults() { reset(); }
    Faults(Faults const&) = delete;
    Faults& operator=(Faults const&) = delete;
    ~Faults() { reset(); }

private:
    static void reset()
    {
        faults = FaultSettings();
        calls = CallCounts();
    }
};

} // namespace tarvek::test
