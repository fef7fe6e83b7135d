// SPDX-License-Identifier: LGPL-2.1-or-later
// PrivateBus: a dbus-daemon of the test's own, for tests labelled "bus". It runs a
// session-type bus on a socket in a fresh temporary directory, open to every user (a
// child process that drops to another uid can connect too), with the limits of a session
// bus (only the protocol bounds messages and arrays), and is killed and reaped,
// with its directory removed, when the object ends. The daemon also dies with the test
// process (parent-death signal), so a crashing test leaves no daemon behind.
//
// The helpers below drive one connection from the test's own thread: a test sends a call
// to its own unique name and receives it back, so that it holds a real message from the
// bus, with a sender, sealed and positioned at its first argument.
#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <sys/types.h>

namespace tarvek::test {

struct BusCloser {
    void operator()(sd_bus* bus) const noexcept { sd_bus_flush_close_unref(bus); }
};
using BusPtr = std::unique_ptr<sd_bus, BusCloser>;

struct MessageUnref {
    void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

class PrivateBus {
public:
    // Starts the daemon and waits, at most `startup` long, until it prints its address.
    // Raises std::runtime_error if it can't be started.
    explicit PrivateBus(std::chrono::milliseconds startup = std::chrono::seconds(10));
    PrivateBus(PrivateBus const&) = delete;
    PrivateBus& operator=(PrivateBus const&) = delete;
    ~PrivateBus();

    // The address that the daemon printed, such as "unix:path=/tmp/tarvek-bus-XXXXXX/bus,guid=...".
    std::string const& address() const noexcept { return address_; }

    // A new, started client connection (sd_bus_new, sd_bus_set_address,
    // sd_bus_set_bus_client, sd_bus_start), owned by the caller: hand it to a BusPtr.
    // Raises std::runtime_error if sd-bus refuses.
    sd_bus* connect() const;

private:
    void stop() noexcept;

    pid_t daemon = -1;
    pid_t owner = -1;
    std::string directory;
    std::string address_;
};

// A connection without a daemon: one end of a socket pair whose other end nobody serves.
// It never gets past authentication, which is enough to build messages, seal them and
// read them back; nothing sent on it arrives anywhere. For unit tests of message code.
class OfflineConnection {
public:
    // Raises std::runtime_error if the socket pair or the connection can't be made.
    OfflineConnection();
    OfflineConnection(OfflineConnection const&) = delete;
    OfflineConnection& operator=(OfflineConnection const&) = delete;
    ~OfflineConnection();

    sd_bus* get() const noexcept { return bus; }

private:
    int peer = -1;
    // Not a BusPtr: flushing would wait for a peer that never answers.
    sd_bus* bus = nullptr;
};

// A new method call on `bus` to "org.example.Peer", at "/test" on "com.omno.Test".
MessagePtr new_call(sd_bus* bus, char const* member = "Probe");

// The unique name of a started connection; raises std::runtime_error without one.
std::string unique_name(sd_bus* bus);

// A new method call from `bus` to its own unique name, at "/test" on "com.omno.Test".
MessagePtr new_call_to_self(sd_bus* bus, char const* member = "Probe");

// Seals a message built by the test, as sending would, and rewinds it for reading, so that
// it can be read without a round trip through the daemon.
void seal_for_reading(sd_bus_message* message);

// Waits at most `timeout` for the next method call that reaches `bus`, while sd-bus
// processes everything else. Raises std::runtime_error when none comes.
MessagePtr receive_method_call(sd_bus* bus, std::chrono::milliseconds timeout = std::chrono::seconds(5));

// Waits at most `timeout` for the reply to the call with `cookie`.
MessagePtr receive_reply(sd_bus* bus, std::uint64_t cookie,
                         std::chrono::milliseconds timeout = std::chrono::seconds(5));

// Sends `call`, addressed to `bus` itself, and returns it as `bus` receives it.
MessagePtr send_to_self(sd_bus* bus, sd_bus_message* call,
                        std::chrono::milliseconds timeout = std::chrono::seconds(5));

} // namespace tarvek::test
