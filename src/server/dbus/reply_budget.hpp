// SPDX-License-Identifier: LGPL-2.1-or-later
// ReplyBudget keeps count of what a reply or signal under construction will take on the
// wire, so that a message which the bus would refuse is never sent: the dbus-daemon
// disconnects a peer that sends a message over 128 MiB or an array over 64 MiB, which
// would cut off every client of the service for one oversized answer. sd-bus neither
// checks these limits while building nor tells the size of a message, so the library
// counts what it appends itself. The count is an upper bound (each value is charged its
// worst-case padding), so a reply close to a limit may be refused a little early.
//
// BoundedSerializer is the sink that a property or method result writes through: it
// forwards every call to the real sink and charges the budget first.
//
// Everything here lives on the stack of one callback, or in a state of the serving
// thread, and runs on the thread that serves the bus.
#pragma once

#include <tarvek/glue/serializer.hpp>

#include <cstdint>

struct sd_bus_message;

namespace tarvek::server::dbus {

class ReplyBudget {
public:
    static constexpr std::uint64_t max_message = 128ULL << 20;
    static constexpr std::uint64_t max_array = 64ULL << 20;

    // `inside_array`: the whole body that is charged stands in one array, as the
    // dictionaries of a{sv} replies do.
    explicit ReplyBudget(bool inside_array = true) noexcept : outer_array(inside_array) {}

    // Raises limits_exceeded when the message or the outermost array grows too large.
    void charge(std::uint64_t bytes);
    void open_array() noexcept { ++arrays; }
    void close_array() noexcept;

    // Charges a string or object path as the wire holds it: length word, text, NUL.
    void charge_string(std::uint64_t length) { charge(4 + 3 + length + 1); }
    // Charges an entry of a dictionary with a string key and whatever the key says.
    void charge_entry(std::uint64_t key_length) { charge(7 + 4 + 3 + key_length + 1); }

private:
    std::uint64_t total = 0;
    std::uint64_t in_array = 0;
    unsigned arrays = 0;
    bool outer_array;
};

// The budget of the message that sd-bus is filling through the property getters: one
// Get, GetAll or GetManagedObjects reply, or one PropertiesChanged or InterfacesAdded
// signal. A new message, or a new call behind it, starts a new count.
ReplyBudget& getter_budget(sd_bus_message* reply, sd_bus_message* call);
// Forgets the count of the last message, before the library emits a signal itself.
void restart_getter_budget() noexcept;

class BoundedSerializer final : public glue::ISerializer {
public:
    BoundedSerializer(glue::ISerializer& sink, ReplyBudget& budget) noexcept : sink(sink), budget(budget) {}

    void write(bool value) override;
    void write(unsigned char value) override;
    void write(short value) override;
    void write(unsigned short value) override;
    void write(int value) override;
    void write(unsigned int value) override;
    void write(long value) override;
    void write(unsigned long value) override;
    void write(double value) override;
    void write(char const* text, unsigned long size, bool null_terminated) override;
    void write(ObjectPath const& value) override;

    void tuple_begin(unsigned long size, char const* signature) override;
    void tuple_entry_begin() override;
    void tuple_entry_end() override;
    void tuple_end() override;

    void dict_begin(unsigned long size, char const* signature) override;
    void dict_entry_begin(char const* signature) override;
    void dict_entry_kv_separator() override;
    void dict_entry_end() override;
    void dict_end() override;

    void list_begin(unsigned long size, char const* signature) override;
    void list_entry_begin() override;
    void list_entry_end() override;
    void list_end() override;

    void variant_begin(char const* signature) override;
    void variant_end() override;
    void typed_variant_begin(char const* signature) override;
    void typed_variant_end() override;
    void write_fd(int fd) override;

private:
    glue::ISerializer& sink;
    ReplyBudget& budget;
};

} // namespace tarvek::server::dbus
