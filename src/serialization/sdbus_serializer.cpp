// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/serialization/sdbus_serializer.hpp>

#include <tarvek/common/exceptions.hpp>

#include <boost/throw_exception.hpp>
#include <systemd/sd-bus.h>

#include <string>

namespace tarvek::serialization {

SDBusSerializer::SDBusSerializer(server::dbus::SDBusOutboundMessage const& message) noexcept
    : message(message)
{}

SDBusSerializer::~SDBusSerializer()
{
    // Reached mostly while a failed write unwinds. A level that sd-bus won't close (an
    // empty variant) leaves the message unfinished, and it is then never sent: the failure
    // that is unwinding is what the caller reports, and nothing is raised from here.
    try {
        while (depth > 0) {
            --depth;
            message.close_container();
        }
    } catch (...) {
    }
}

void SDBusSerializer::append(char type, void const* value)
{
    int const r = sd_bus_message_append_basic(message.get(), type, value);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "could not append"));
}

void SDBusSerializer::open(char type, char const* signature)
{
    message.open_container(type, signature);
    ++depth;
}

void SDBusSerializer::close()
{
    message.close_container();
    --depth;
}

void SDBusSerializer::write(bool value)
{
    // sd-bus reads a boolean as a 32-bit integer.
    int const number = value ? 1 : 0;
    int const r = sd_bus_message_append_basic(message.get(), SD_BUS_TYPE_BOOLEAN, &number);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "could not append bool"));
}

void SDBusSerializer::write(unsigned char value)
{
    append(SD_BUS_TYPE_BYTE, &value);
}

void SDBusSerializer::write(short value)
{
    append(SD_BUS_TYPE_INT16, &value);
}

void SDBusSerializer::write(unsigned short value)
{
    append(SD_BUS_TYPE_UINT16, &value);
}

void SDBusSerializer::write(int value)
{
    append(SD_BUS_TYPE_INT32, &value);
}

void SDBusSerializer::write(unsigned int value)
{
    append(SD_BUS_TYPE_UINT32, &value);
}

void SDBusSerializer::write(long value)
{
    append(SD_BUS_TYPE_INT64, &value);
}

void SDBusSerializer::write(unsigned long value)
{
    append(SD_BUS_TYPE_UINT64, &value);
}

void SDBusSerializer::write(double value)
{
    append(SD_BUS_TYPE_DOUBLE, &value);
}

void SDBusSerializer::write(char const* text, unsigned long size, bool null_terminated)
{
    if (null_terminated) {
        append(SD_BUS_TYPE_STRING, text);
        return;
    }
    // sd-bus takes only NUL-terminated strings, so a bare slice pays for a copy.
    std::string const copy(text, size);
    append(SD_BUS_TYPE_STRING, copy.c_str());
}

void SDBusSerializer::write(ObjectPath const& value)
{
    append(SD_BUS_TYPE_OBJECT_PATH, value.c_str());
}

void SDBusSerializer::tuple_begin(unsigned long, char const* signature)
{
    open(SD_BUS_TYPE_STRUCT, signature);
}

void SDBusSerializer::tuple_entry_begin() {}

void SDBusSerializer::tuple_entry_end() {}

void SDBusSerializer::tuple_end()
{
    close();
}

void SDBusSerializer::dict_begin(unsigned long, char const* signature)
{
    open(SD_BUS_TYPE_ARRAY, signature);
}

void SDBusSerializer::dict_entry_begin(char const* signature)
{
    open(SD_BUS_TYPE_DICT_ENTRY, signature);
}

void SDBusSerializer::dict_entry_kv_separator() {}

void SDBusSerializer::dict_entry_end()
{
    close();
}

void SDBusSerializer::dict_end()
{
    close();
}

void SDBusSerializer::list_begin(unsigned long, char const* signature)
{
    open(SD_BUS_TYPE_ARRAY, signature);
}

void SDBusSerializer::list_entry_begin() {}

void SDBusSerializer::list_entry_end() {}

void SDBusSerializer::list_end()
{
    close();
}

void SDBusSerializer::variant_begin(char const* signature)
{
    open(SD_BUS_TYPE_VARIANT, signature);
}

void SDBusSerializer::variant_end()
{
    close();
}

void SDBusSerializer::typed_variant_begin(char const* signature)
{
    open(SD_BUS_TYPE_VARIANT, signature);
}

void SDBusSerializer::typed_variant_end()
{
    close();
}

void SDBusSerializer::write_fd(int fd)
{
    append(SD_BUS_TYPE_UNIX_FD, &fd);
}

} // namespace tarvek::serialization
