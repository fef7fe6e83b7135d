// SPDX-License-Identifier: LGPL-2.1-or-later
// Handles on sd-bus messages. Each handle owns one reference on its sd_bus_message and
// keeps a stack of the containers that were opened (outbound) or entered (inbound)
// through it, one type code per level, innermost last. A copy takes a further reference
// and starts with an empty stack of its own, so each handle unwinds only what it opened:
// an outbound handle closes its open containers when it ends, an inbound handle skips the
// rest of each entered container and leaves it. A failure while unwinding stops the
// unwinding and is dropped: destructors never raise, and a message met in such a state
// is not read or sent any further.
//
// sd-bus messages aren't thread-safe, and neither are their reference counts: handles are
// created, used and destroyed only on the thread that serves the bus.
#pragma once

#include <vector>

struct sd_bus_message;

namespace tarvek::server::dbus {

class SDBusError;

class SDBusMessage {
public:
    SDBusMessage() noexcept = default;
    // Takes a reference of its own; a null message gives an empty handle.
    explicit SDBusMessage(sd_bus_message* message) noexcept;
    SDBusMessage(SDBusMessage const& other) noexcept;
    SDBusMessage& operator=(SDBusMessage const&) = delete;
    virtual ~SDBusMessage();

    sd_bus_message* get() const noexcept { return message; }
    // Number of containers open on this handle.
    unsigned long depth() const noexcept { return containers.size(); }

protected:
    // Removes the innermost level; an empty stack is left as it is.
    void pop_container() noexcept;

    sd_bus_message* message = nullptr;
    std::vector<char> containers;
};

// A message that the library reads: a call that sd-bus handed to a callback. The handle
// may be empty when the callback had no current message.
class SDBusInboundMessage : public SDBusMessage {
public:
    using SDBusMessage::SDBusMessage;
    SDBusInboundMessage(SDBusInboundMessage const& other) noexcept = default;
    ~SDBusInboundMessage() override;

    // Enters a container of the message and records it on this handle; returns the new
    // depth. Raises tarvek::system_error "sd_bus_message_enter_container failed", and
    // records nothing, if sd-bus refuses (ENXIO for a container of another kind or
    // signature).
    unsigned long enter_container(char type, char const* contents);
    // Leaves the innermost entered container, which must have been read to its end.
    // Raises tarvek::system_error "sd_bus_message_exit_container failed".
    void exit_container();
};

// A message that the library builds and sends: a method return, an error reply or a
// signal.
class SDBusOutboundMessage : public SDBusMessage {
public:
    // The method return for `call`. Raises tarvek::invalid_argument "empty message" for an
    // empty handle and tarvek::system_error "Could not create reply message" if sd-bus
    // refuses.
    explicit SDBusOutboundMessage(SDBusInboundMessage const& call);
    // The error reply for `call`. `error` isn't consumed: the caller still frees it.
    SDBusOutboundMessage(SDBusInboundMessage const& call, SDBusError&& error);
    // A message built elsewhere (a signal); the handle takes a reference of its own.
    explicit SDBusOutboundMessage(sd_bus_message* message) noexcept;
    SDBusOutboundMessage(SDBusOutboundMessage const& other) noexcept = default;
    ~SDBusOutboundMessage() override;

    // Pushes `type`, then opens the container; returns the new depth. On failure the code
    // stays pushed, and tarvek::system_error "sd_bus_message_open_container failed" is
    // raised: the unwinding then closes one level more than was opened.
    unsigned long open_container(char type, char const* contents);
    // Pops one code, then closes the innermost container. Raises tarvek::system_error
    // "sd_bus_message_close_container failed".
    void close_container();

    // Sends the finished message. Raises tarvek::invalid_state_error "Bad state: Inside a
    // container" while this handle has open containers, "Send: no message to send" for an
    // empty handle, "Send: message has no bus" for a message without a connection, and
    // tarvek::system_error "send failed" if sd-bus can't queue it.
    void send();
};

} // namespace tarvek::server::dbus
