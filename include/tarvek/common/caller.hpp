// SPDX-License-Identifier: LGPL-2.1-or-later
// Caller: who sent the bus request that is being served, as the protocol server found out
// when it checked the access policy. A method handler, and validate and on_changed of a
// bus write, read it with tarvek::current_caller(); nothing asks the bus again.
//
// Threads. current_caller() is per thread. The protocol server names the caller on its own
// thread while it hands a request over (CallerScope around call_method and set_many); the
// provider runtime copies it into the queued task and names it again on the object's
// executor for exactly the run of the handler, or of validate and on_changed of that
// write. Everywhere else it is null: a local Property::set or update, a task the
// application queued itself, a Responder answered later from another thread. The pointer
// is valid only until the handler (or validate) returns; copy the Caller to keep it.
#pragma once

#include <sys/types.h>

#include <string>

namespace tarvek {

struct Caller {
    // The sender's unique bus name, such as ":1.42".
    std::string sender;
    // The sender's effective user id, as the bus daemon reported it.
    uid_t uid = static_cast<uid_t>(-1);
    // The sender's process id; 0 when the bus could not tell it.
    pid_t pid = 0;
    // The user name that the access policy was checked against.
    std::string user;
};

// The caller of the request whose handler, validate or on_changed runs on this thread;
// null when none does (see the file comment).
Caller const* current_caller() noexcept;

// Makes `caller` (may be null) the current caller of this thread until the scope ends, and
// then the one before again. For protocol servers and the provider runtime; the Caller
// must outlive the scope.
class CallerScope {
public:
    explicit CallerScope(Caller const* caller) noexcept;
    CallerScope(CallerScope const&) = delete;
    CallerScope& operator=(CallerScope const&) = delete;
    ~CallerScope();

private:
    Caller const* previous_;
};

} // namespace tarvek
