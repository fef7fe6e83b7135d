// SPDX-License-Identifier: LGPL-2.1-or-later
// PrivateBus: a dbus-daemon of the test's own, for tests that put a service and its
// clients on a real bus without touching the system's or the session's. The daemon runs a
// session-type bus on a socket in a fresh temporary directory (under $TMPDIR, or /tmp),
// open to every user, so that a child process that has dropped to another uid (see
// run_as in other_user.hpp) can connect too, with the limits of a session bus, so that
// only the protocol bounds messages and arrays. It works as root and as a normal user.
//
// The object owns the daemon and the directory: stop() or the destructor kills and reaps
// the daemon and removes the directory with everything in it, also while an exception or
// a failed assertion unwinds the test. The daemon also dies with the process that started
// it (parent-death signal), so a crashing test leaves no daemon behind; a forked child of
// the test that ends shares the object but never stops the daemon.
//
// One thread at a time uses the object; connections made by connect() belong to the
// caller and may be used on any one thread each.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include <sys/types.h>

struct sd_bus;

namespace tarvek::test {

// Flushes and closes a connection, then drops the reference.
struct BusCloser {
    void operator()(sd_bus* bus) const noexcept;
};
using BusPtr = std::unique_ptr<sd_bus, BusCloser>;

class PrivateBus {
public:
    // Starts `program` (looked up in PATH unless it names a path) and waits, at most
    // `startup` long, until it prints its address. Raises tarvek::system_error with
    // ENOENT when the program is not there ("private bus: dbus-daemon not found in PATH
    // (it comes with the package dbus-daemon)"), and tarvek::system_error with what
    // failed otherwise; a daemon that exits at once has its complaints in the text.
    explicit PrivateBus(std::chrono::milliseconds startup = std::chrono::seconds(10),
                        std::string const& program = "dbus-daemon");
    PrivateBus(PrivateBus const&) = delete;
    PrivateBus& operator=(PrivateBus const&) = delete;
    ~PrivateBus();

    // The address that the daemon printed, such as
    // "unix:path=/tmp/tarvek-bus-XXXXXX/bus,guid=...". Stays readable after stop().
    std::string const& address() const noexcept { return address_; }
    // The temporary directory of the socket, the daemon's configuration and its log;
    // empty once stopped.
    std::string const& directory() const noexcept { return directory_; }
    // The daemon's process id; -1 once stopped.
    pid_t pid() const noexcept { return daemon_; }
    bool running() const noexcept { return daemon_ > 0; }

    // A new, started client connection (sd_bus_new, sd_bus_set_address,
    // sd_bus_set_bus_client, sd_bus_start), owned by the caller: hand it to a BusPtr.
    // Raises tarvek::system_error if sd-bus refuses, tarvek::invalid_state_error once
    // stopped.
    sd_bus* connect() const;

    // Ends the daemon (SIGTERM, then SIGKILL after 5 s), reaps it and removes the
    // directory. Idempotent; the destructor calls it.
    void stop() noexcept;

private:
    pid_t daemon_ = -1;
    pid_t owner_ = -1;
    std::string directory_;
    std::string address_;
};

} // namespace tarvek::test
