// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/serialization/json_serializer.hpp>

#include <tarvek/common/exceptions.hpp>

#include <boost/throw_exception.hpp>

#include <bit>
#include <cstdio>
#include <cstring>

namespace tarvek::serialization {

namespace {

// Numbers go through printf formats so that their text is exactly what the C library
// prints, including the six significant digits of "%lg".
template <class T>
void print_number(std::ostream& out, char const* format, T value)
{
    char buffer[100];
    int const length = std::snprintf(buffer, sizeof buffer, format, value);
    if (length > 0)
        out.write(buffer, length);
}

} // namespace

void JSON_Serializer::write(bool value)
{
    // Only bit 0 decides, whatever the other bits of the byte hold.
    out_ << ((std::bit_cast<unsigned char>(value) & 1U) != 0 ? "true" : "false");
}

void JSON_Serializer::write(unsigned char value)
{
    print_number(out_, "%u", static_cast<unsigned int>(value));
}

void JSON_Serializer::write(short value)
{
    print_number(out_, "%d", static_cast<int>(value));
}

void JSON_Serializer::write(unsigned short value)
{
    print_number(out_, "%u", static_cast<unsigned int>(value));
}

void JSON_Serializer::write(int value)
{
    print_number(out_, "%d", value);
}

void JSON_Serializer::write(unsigned int value)
{
    print_number(out_, "%u", value);
}

void JSON_Serializer::write(long value)
{
    print_number(out_, "%ld", value);
}

void JSON_Serializer::write(unsigned long value)
{
    print_number(out_, "%lu", value);
}

void JSON_Serializer::write(double value)
{
    print_number(out_, "%lg", value);
}

void JSON_Serializer::write(char const* text, unsigned long size, bool null_terminated)
{
    if (size == 0 && null_terminated && text != nullptr)
        size = std::strlen(text);

    static constexpr char hex_digits[] = "0123456789abcdef";
    out_.put('"');
    for (unsigned long i = 0; i < size; ++i) {
        auto const byte = static_cast<unsigned char>(text[i]);
        switch (byte) {
        case '"':
            out_.write("\\\"", 2);
            break;
        case '\\':
            out_.write("\\\\", 2);
            break;
        case '\n':
            out_.write("\\n", 2);
            break;
        case '\r':
            out_.write("\\r", 2);
            break;
        case '\t':
            out_.write("\\t", 2);
            break;
        default:
            if (byte >= 0x20 && byte <= 0x7E) {
                out_.put(static_cast<char>(byte));
            } else {
                char const escape[] = {'\\', 'x', hex_digits[byte >> 4], hex_digits[byte & 0xF]};
                out_.write(escape, sizeof escape);
            }
        }
    }
    out_.put('"');
}

void JSON_Serializer::write(ObjectPath const& value)
{
    write(value.c_str(), value.str().size(), true);
}

void JSON_Serializer::tuple_begin(unsigned long size, char const* signature)
{
    JSON_Serializer::list_begin(size, signature);
}

void JSON_Serializer::tuple_entry_begin()
{
    add_entry();
}

void JSON_Serializer::tuple_entry_end() {}

void JSON_Serializer::tuple_end()
{
    JSON_Serializer::list_end();
}

void JSON_Serializer::dict_begin(unsigned long /*size*/, char const* /*signature*/)
{
    out_.put('{');
    open_container();
}

void JSON_Serializer::dict_entry_begin(char const* /*signature*/)
{
    add_entry();
}

void JSON_Serializer::dict_entry_kv_separator()
{
    out_.put(':');
}

void JSON_Serializer::dict_entry_end() {}

void JSON_Serializer::dict_end()
{
    out_.put('}');
    close_container();
}

void JSON_Serializer::list_begin(unsigned long /*size*/, char const* /*signature*/)
{
    out_.put('[');
    open_container();
}

void JSON_Serializer::list_entry_begin()
{
    add_entry();
}

void JSON_Serializer::list_entry_end() {}

void JSON_Serializer::list_end()
{
    out_.put(']');
    close_container();
}

void JSON_Serializer::variant_begin(char const* /*signature*/) {}

void JSON_Serializer::variant_end() {}

void JSON_Serializer::open_container()
{
    first_entry_.push_back(true);
}

void JSON_Serializer::close_container()
{
    first_entry_.pop_back();
}

void JSON_Serializer::add_entry()
{
    if (first_entry_.back())
        first_entry_.back() = false;
    else
        out_.write(", ", 2);
}

void JSON_Serializer::typed_variant_begin(char const* signature)
{
    dict_begin(2, "{sv}");
    dict_entry_begin("sv");
    write("signature", 0, true);
    dict_entry_kv_separator();
    write(signature, 0, true);
    dict_entry_end();
    dict_entry_begin("sv");
    write("value", 0, true);
    dict_entry_kv_separator();
}

void JSON_Serializer::typed_variant_end()
{
    dict_entry_end();
    dict_end();
}

void JSON_Serializer::write_fd(int /*fd*/)
{
    boost::throw_exception(serialize_error("A file descriptor cannot be written as JSON text"));
}

} // namespace tarvek::serialization
