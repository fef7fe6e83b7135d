// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/serialization/sdbus_deserializer.hpp>

#include <tarvek/common/exceptions.hpp>

#include <boost/throw_exception.hpp>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdint>
#include <string>

namespace tarvek::serialization {

template <class T>
T SDBusDeserializer::read(char type)
{
    // A result of 0, the end of the container, leaves the local as it was.
    T value{};
    int const r = sd_bus_message_read_basic(message, type, &value);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r));
    return value;
}

void SDBusDeserializer::enter(char type)
{
    int const r = sd_bus_message_enter_container(message, type, nullptr);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r));
}

void SDBusDeserializer::exit()
{
    int const r = sd_bus_message_exit_container(message);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r));
}

bool SDBusDeserializer::something_follows()
{
    // sd-bus reports type 0 at the end of a container. A failing peek leaves the mark, so
    // it counts as "something follows", and the read of that something reports the error.
    char type = '?';
    sd_bus_message_peek_type(message, &type, nullptr);
    return type != 0;
}

bool SDBusDeserializer::read_bool()
{
    return read<std::int32_t>(SD_BUS_TYPE_BOOLEAN) != 0;
}

unsigned char SDBusDeserializer::read_byte()
{
    return read<unsigned char>(SD_BUS_TYPE_BYTE);
}

short SDBusDeserializer::read_int16()
{
    return read<short>(SD_BUS_TYPE_INT16);
}

unsigned short SDBusDeserializer::read_uint16()
{
    return read<unsigned short>(SD_BUS_TYPE_UINT16);
}

int SDBusDeserializer::read_int32()
{
    return read<int>(SD_BUS_TYPE_INT32);
}

unsigned int SDBusDeserializer::read_uint32()
{
    return read<unsigned int>(SD_BUS_TYPE_UINT32);
}

long SDBusDeserializer::read_int64()
{
    return read<long>(SD_BUS_TYPE_INT64);
}

unsigned long SDBusDeserializer::read_uint64()
{
    return read<unsigned long>(SD_BUS_TYPE_UINT64);
}

double SDBusDeserializer::read_double()
{
    return read<double>(SD_BUS_TYPE_DOUBLE);
}

std::string SDBusDeserializer::read_string()
{
    return std::string(read<char const*>(SD_BUS_TYPE_STRING));
}

ObjectPath SDBusDeserializer::read_path()
{
    return ObjectPath(read<char const*>(SD_BUS_TYPE_OBJECT_PATH));
}

void SDBusDeserializer::tuple_enter()
{
    enter(SD_BUS_TYPE_STRUCT);
}

void SDBusDeserializer::tuple_read_separator() {}

void SDBusDeserializer::tuple_exit()
{
    exit();
}

int SDBusDeserializer::list_enter()
{
    enter(SD_BUS_TYPE_ARRAY);
    return -1;
}

void SDBusDeserializer::list_read_separator() {}

bool SDBusDeserializer::list_try_exit()
{
    if (something_follows())
        return false;
    exit();
    return true;
}

int SDBusDeserializer::dict_enter()
{
    return list_enter();
}

bool SDBusDeserializer::dict_entry_try_enter(bool)
{
    if (!something_follows())
        return false;
    enter(SD_BUS_TYPE_DICT_ENTRY);
    return true;
}

void SDBusDeserializer::dict_entry_read_kv_separator() {}

void SDBusDeserializer::dict_entry_exit()
{
    exit();
}

void SDBusDeserializer::dict_exit()
{
    exit();
}

void SDBusDeserializer::variant_enter()
{
    enter(SD_BUS_TYPE_VARIANT);
}

void SDBusDeserializer::variant_exit()
{
    exit();
}

std::string SDBusDeserializer::typed_variant_enter()
{
    char type = 0;
    char const* contents = nullptr;
    int const r = sd_bus_message_peek_type(message, &type, &contents);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r));
    if (r == 0 || type != SD_BUS_TYPE_VARIANT || contents == nullptr)
        boost::throw_exception(tarvek::system_error(ENXIO));
    // Copied before entering: the text belongs to the message.
    std::string signature(contents);
    enter(SD_BUS_TYPE_VARIANT);
    return signature;
}

void SDBusDeserializer::typed_variant_exit()
{
    exit();
}

common::FileDescriptor SDBusDeserializer::read_fd()
{
    int fd = -1;
    int const r = sd_bus_message_read_basic(message, SD_BUS_TYPE_UNIX_FD, &fd);
    // sd-bus says EBADMSG for an index past the descriptors that came with the message:
    // the sender's fault, which the client is to hear as such.
    if (r == -EBADMSG)
        boost::throw_exception(tarvek::invalid_argument("File descriptor index out of range"));
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r));
    if (r == 0)
        boost::throw_exception(tarvek::system_error(ENXIO));
    return common::FileDescriptor::duplicate(fd);
}

} // namespace tarvek::serialization
