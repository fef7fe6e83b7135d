// SPDX-License-Identifier: LGPL-2.1-or-later
// The private bus of the project's own tests: PrivateBus, BusPtr and BusCloser come from
// the public test fixture (tarvek/testing/private_bus.hpp, library tarvek-testing), which
// is where the daemon is started and cleaned up. What stays here are the helpers of
// message-level tests that drive one connection from the test's own thread: a test sends
// a call to its own unique name and receives it back, so that it holds a real message
// from the bus, with a sender, sealed and positioned at its first argument.
#pragma once

#include <tarvek/testing/private_bus.hpp>

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace tarvek::test {

struct MessageUnref {
    void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

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
