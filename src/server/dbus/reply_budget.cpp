// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/reply_budget.hpp"

#include "server/dbus/sdbus_error.hpp"

#include <tarvek/common/object_path.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/throw_exception.hpp>
#include <systemd/sd-bus.h>

#include <cstring>

namespace tarvek::server::dbus {

namespace {

// Room left for the header of a reply or signal: names, path, signature and serials.
constexpr std::uint64_t header_allowance = 64 * 1024;

// A basic value of `size` bytes with its worst-case padding.
constexpr std::uint64_t padded(std::uint64_t size)
{
    return size + size - 1;
}

} // namespace

void ReplyBudget::charge(std::uint64_t bytes)
{
    total += bytes;
    if (total > max_message - header_allowance) {
        boost::throw_exception(limits_exceeded(
            str::join("Reply too large for the bus: a message may hold at most ", max_message, " bytes")));
    }
    if (outer_array || arrays > 0) {
        in_array += bytes;
        if (in_array > max_array) {
            boost::throw_exception(limits_exceeded(
                str::join("Reply too large for the bus: an array may hold at most ", max_array, " bytes")));
        }
    }
}

void ReplyBudget::close_array() noexcept
{
    if (arrays > 0 && --arrays == 0 && !outer_array)
        in_array = 0;
}

namespace {

struct GetterState {
    sd_bus_message* reply = nullptr;
    sd_bus_message* call = nullptr;
    std::uint64_t cookie = 0;
    ReplyBudget budget;
};

// One per serving thread: sd-bus fills one message at a time there.
thread_local GetterState getter_state;

} // namespace

ReplyBudget& getter_budget(sd_bus_message* reply, sd_bus_message* call)
{
    std::uint64_t cookie = 0;
    if (call)
        sd_bus_message_get_cookie(call, &cookie);
    GetterState& state = getter_state;
    if (state.reply != reply || state.call != call || state.cookie != cookie) {
        state.reply = reply;
        state.call = call;
        state.cookie = cookie;
        // Only a Get answers with a bare variant; every other message that the getters
        // fill holds its values in a dictionary.
        bool const bare = call && sd_bus_message_is_method_call(call, "org.freedesktop.DBus.Properties", "Get") > 0;
        state.budget = ReplyBudget(!bare);
    }
    return state.budget;
}

void restart_getter_budget() noexcept
{
    getter_state = GetterState();
}

void BoundedSerializer::write(bool value)
{
    budget.charge(padded(4));
    sink.write(value);
}

void BoundedSerializer::write(unsigned char value)
{
    budget.charge(1);
    sink.write(value);
}

void BoundedSerializer::write(short value)
{
    budget.charge(padded(2));
    sink.write(value);
}

void BoundedSerializer::write(unsigned short value)
{
    budget.charge(padded(2));
    sink.write(value);
}

void BoundedSerializer::write(int value)
{
    budget.charge(padded(4));
    sink.write(value);
}

void BoundedSerializer::write(unsigned int value)
{
    budget.charge(padded(4));
    sink.write(value);
}

void BoundedSerializer::write(long value)
{
    budget.charge(padded(8));
    sink.write(value);
}

void BoundedSerializer::write(unsigned long value)
{
    budget.charge(padded(8));
    sink.write(value);
}

void BoundedSerializer::write(double value)
{
    budget.charge(padded(8));
    sink.write(value);
}

void BoundedSerializer::write(char const* text, unsigned long size, bool null_terminated)
{
    budget.charge_string(null_terminated && text ? std::strlen(text) : size);
    sink.write(text, size, null_terminated);
}

void BoundedSerializer::write(ObjectPath const& value)
{
    budget.charge_string(value.str().size());
    sink.write(value);
}

void BoundedSerializer::tuple_begin(unsigned long size, char const* signature)
{
    budget.charge(7);
    sink.tuple_begin(size, signature);
}

void BoundedSerializer::tuple_entry_begin()
{
    sink.tuple_entry_begin();
}

void BoundedSerializer::tuple_entry_end()
{
    sink.tuple_entry_end();
}

void BoundedSerializer::tuple_end()
{
    sink.tuple_end();
}

void BoundedSerializer::dict_begin(unsigned long size, char const* signature)
{
    // The length word, and the padding to the first entry.
    budget.charge(padded(4) + 7);
    budget.open_array();
    sink.dict_begin(size, signature);
}

void BoundedSerializer::dict_entry_begin(char const* signature)
{
    budget.charge(7);
    sink.dict_entry_begin(signature);
}

void BoundedSerializer::dict_entry_kv_separator()
{
    sink.dict_entry_kv_separator();
}

void BoundedSerializer::dict_entry_end()
{
    sink.dict_entry_end();
}

void BoundedSerializer::dict_end()
{
    budget.close_array();
    sink.dict_end();
}

void BoundedSerializer::list_begin(unsigned long size, char const* signature)
{
    budget.charge(padded(4) + 7);
    budget.open_array();
    sink.list_begin(size, signature);
}

void BoundedSerializer::list_entry_begin()
{
    sink.list_entry_begin();
}

void BoundedSerializer::list_entry_end()
{
    sink.list_entry_end();
}

void BoundedSerializer::list_end()
{
    budget.close_array();
    sink.list_end();
}

void BoundedSerializer::variant_begin(char const* signature)
{
    budget.charge(2 + (signature ? std::strlen(signature) : 0));
    sink.variant_begin(signature);
}

void BoundedSerializer::variant_end()
{
    sink.variant_end();
}

void BoundedSerializer::typed_variant_begin(char const* signature)
{
    budget.charge(2 + (signature ? std::strlen(signature) : 0));
    sink.typed_variant_begin(signature);
}

void BoundedSerializer::typed_variant_end()
{
    sink.typed_variant_end();
}

void BoundedSerializer::write_fd(int fd)
{
    // The index into the message's descriptors.
    budget.charge(padded(4));
    sink.write_fd(fd);
}

} // namespace tarvek::server::dbus
