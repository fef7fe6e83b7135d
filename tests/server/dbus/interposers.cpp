// SPDX-License-Identifier: LGPL-2.1-or-later
#include "interposers.hpp"

#include <systemd/sd-bus.h>
#include <vrel2.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <pwd.h>
#include <unistd.h>

namespace tarvek::test {

FaultSettings faults;
CallCounts calls;

namespace {

// The definition that the dynamic linker would have chosen without this program's own.
template <class F>
F* real(char const* name)
{
    void* const symbol = ::dlsym(RTLD_NEXT, name);
    if (!symbol) {
        std::fprintf(stderr, "interposers: no %s\n", name);
        std::abort();
    }
    return reinterpret_cast<F*>(symbol);
}

} // namespace

} // namespace tarvek::test

using tarvek::test::calls;
using tarvek::test::faults;
using tarvek::test::real;

extern "C" {

bool vrel2_init(vrel2_error* error)
{
    static auto* const next = real<bool(vrel2_error*)>("vrel2_init");
    bool const ok = next(error);
    if (ok)
        ++calls.vrel2_init;
    return ok;
}

void vrel2_release(void)
{
    static auto* const next = real<void()>("vrel2_release");
    ++calls.vrel2_release;
    next();
}

bool vrel2_check_username(char const* user, char const* action, vrel2_error* error)
{
    static auto* const next = real<bool(char const*, char const*, vrel2_error*)>("vrel2_check_username");
    ++calls.vrel2_check;
    calls.last_user = user;
    calls.last_action = action;
    if (faults.check) {
        error->code = faults.check->code;
        std::snprintf(error->text, sizeof error->text, "%s", faults.check->text);
        return faults.check->answer;
    }
    return next(user, action, error);
}

int sd_bus_message_at_end(sd_bus_message* m, int complete)
{
    static auto* const next = real<int(sd_bus_message*, int)>("sd_bus_message_at_end");
    return faults.at_end ? faults.at_end : next(m, complete);
}

int sd_bus_message_skip(sd_bus_message* m, char const* types)
{
    static auto* const next = real<int(sd_bus_message*, char const*)>("sd_bus_message_skip");
    ++calls.skip;
    return faults.skip ? faults.skip : next(m, types);
}

sd_bus* sd_bus_message_get_bus(sd_bus_message* m)
{
    static auto* const next = real<sd_bus*(sd_bus_message*)>("sd_bus_message_get_bus");
    return faults.no_bus ? nullptr : next(m);
}

int sd_bus_query_sender_creds(sd_bus_message* m, uint64_t mask, sd_bus_creds** creds)
{
    static auto* const next = real<int(sd_bus_message*, uint64_t, sd_bus_creds**)>("sd_bus_query_sender_creds");
    ++calls.query_sender_creds;
    if (!faults.creds_result)
        return next(m, mask, creds);
    int const r = sd_bus_creds_new_from_pid(creds, ::getpid(), SD_BUS_CREDS_PID);
    return r < 0 ? r : *faults.creds_result;
}

passwd* getpwuid(uid_t uid)
{
    static auto* const next = real<passwd*(uid_t)>("getpwuid");
    return faults.hidden_uid == uid ? nullptr : next(uid);
}

} // extern "C"
