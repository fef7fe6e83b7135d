// SPDX-License-Identifier: LGPL-2.1-or-later
// Small tools for reading and writing nested bus arguments in place: the strict string
// read, the string append, scoped container guards, a walk over an array of names, and
// the lookup of a property by name. They live on the stack of one sd-bus callback and run
// on the thread that serves the bus.
//
// A guard ends its container when its scope ends, or earlier through end(), which reports
// failures as exceptions. A failure at the end of the scope is dropped: it is mostly met
// while the first failure unwinds, and that one is what the caller reports.
#pragma once

#include <tarvek/common/const_string.hpp>
#include <tarvek/glue/members.hpp>
#include <tarvek/server/dbus/sdbus_message.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace tarvek::server::dbus {

// Unlike SDBusDeserializer::read_string, tells the end of the container from a value:
// raises tarvek::length_error "No more elements to read" there, and tarvek::system_error
// "could not read" for any other failure. The text points into the message.
char const* read_string_argument(sd_bus_message* message);

// Raises tarvek::system_error "could not append".
void append_string_argument(sd_bus_message* message, char const* text);

// The properties of one bus interface by name, as dbus::Interface keeps them.
using PropertyMap = std::map<std::string, std::reference_wrapper<glue::IProperty>>;

// Raises tarvek::unknown_property "Interface: <interface> has no property named <name>".
glue::IProperty& find_property(ConstString interface, PropertyMap const& properties, std::string const& name);

// One open container of an outbound message.
class OutboundContainerGuard {
public:
    // Raises what SDBusOutboundMessage::open_container raises.
    OutboundContainerGuard(SDBusOutboundMessage& message, char type, char const* contents);
    OutboundContainerGuard(OutboundContainerGuard const&) = delete;
    OutboundContainerGuard& operator=(OutboundContainerGuard const&) = delete;
    ~OutboundContainerGuard();

    // Closes the container now. Raises tarvek::invalid_state_error "Unexpected container
    // level <level>" if the message isn't at the depth at which the guard opened it.
    void end();

private:
    SDBusOutboundMessage& message;
    // The depth right after the opening; 0 once ended.
    std::uint64_t level;
};

// One entered container of an inbound message. Ending it skips whatever the reader left
// unread, so that a container may be left half read.
class InboundContainerGuard {
public:
    // Raises what SDBusInboundMessage::enter_container raises.
    InboundContainerGuard(SDBusInboundMessage& message, char type, char const* contents);
    InboundContainerGuard(InboundContainerGuard const&) = delete;
    InboundContainerGuard& operator=(InboundContainerGuard const&) = delete;
    ~InboundContainerGuard();

    // Leaves the container now. Raises tarvek::system_error "could not skip" or
    // "sd_bus_message_exit_container failed", and tarvek::internal_error "Unexpected
    // container level <level>" if the message isn't at the depth of the entering.
    void end();

    sd_bus_message* get() const noexcept { return message.get(); }

private:
    SDBusInboundMessage& message;
    // The depth right after the entering; 0 once ended.
    std::uint64_t level;
};

// The array of strings at the read position, entered by the constructor. A walk reads the
// names in place. Starting a walk rewinds to the first element, so a list may be walked
// more than once. The end of an empty array is seen only at the first step, not at the
// start: begin() of an empty list stands on a null name.
class NameList {
public:
    // A position of a walk: the current name of the list, or nothing at the end.
    class Iterator {
    public:
        Iterator(char const* const* name, NameList* list) noexcept : name(name), list(list) {}

        // Null when the walk has ended.
        char const* const* position() const noexcept { return name; }
        // Reads the next name; at the end of the array the position becomes null.
        Iterator& operator++();

        friend bool operator==(Iterator const&, Iterator const&) = default;

    private:
        char const* const* name;
        NameList* list;
    };

    // Raises what SDBusInboundMessage::enter_container raises for an `as` argument.
    explicit NameList(SDBusInboundMessage& message);

    Iterator begin();
    Iterator end() noexcept { return Iterator(nullptr, this); }

private:
    void read_next();

    InboundContainerGuard guard;
    char const* current = nullptr;
    bool done = false;
};

} // namespace tarvek::server::dbus
