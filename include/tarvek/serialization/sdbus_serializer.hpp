// SPDX-License-Identifier: LGPL-2.1-or-later
// SDBusSerializer: the sink of values that appends to an sd-bus message under
// construction. It is made on the stack around an outbound message, holds a reference of
// its own on the same sd_bus_message and a container stack of its own, and never sends.
//
// Whatever was written when it ends, its destructor closes every container that was
// opened through it, so that a value may throw half way and the caller's own levels are
// still true. A close that fails there ends the process. A failed opening keeps its type
// code on the stack without counting as open: the unwinding then closes one level more,
// which is the caller's container if there is one (and at the root of the message ends
// the process).
//
// Used by one thread, the one that builds the message, from creation to destruction.
#pragma once

#include <tarvek/glue/serializer.hpp>
#include <tarvek/server/dbus/sdbus_message.hpp>

#include <cstdint>

namespace tarvek::server::dbus {
class GetManyIterator;
} // namespace tarvek::server::dbus

namespace tarvek::serialization {

// Each failing sd-bus call raises tarvek::system_error with the negated result: "could not
// append bool", "could not append", "sd_bus_message_open_container failed" or
// "sd_bus_message_close_container failed". Sizes are not used; signatures are handed to
// sd-bus, which checks the nesting and the types.
class SDBusSerializer final : public glue::ISerializer {
public:
    explicit SDBusSerializer(server::dbus::SDBusOutboundMessage const& message) noexcept;
    SDBusSerializer(SDBusSerializer const&) = delete;
    SDBusSerializer& operator=(SDBusSerializer const&) = delete;
    ~SDBusSerializer() override;

    void write(bool value) override;
    void write(unsigned char value) override;
    void write(short value) override;
    void write(unsigned short value) override;
    void write(int value) override;
    void write(unsigned int value) override;
    void write(long value) override;
    void write(unsigned long value) override;
    void write(double value) override;
    // With `null_terminated` true the text goes to sd-bus directly and `size` is ignored;
    // otherwise a NUL-terminated copy of `size` bytes is appended.
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
    // The same `v` as variant_begin and variant_end.
    void typed_variant_begin(char const* signature) override;
    void typed_variant_end() override;
    // sd-bus duplicates the descriptor into the message; `fd` stays the caller's. A
    // connection that cannot pass descriptors fails with "could not append".
    void write_fd(int fd) override;

private:
    // Opens the entry and variant of a property in the reply before the property writes
    // itself, and counts them, so that a throwing property leaves the reply well-formed.
    friend class server::dbus::GetManyIterator;

    void open(char type, char const* signature);
    void close();
    void append(char type, void const* value);

    server::dbus::SDBusOutboundMessage message;
    std::int32_t depth = 0;
};

} // namespace tarvek::serialization
