// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/serialization/json_deserializer.hpp>

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/throw_exception.hpp>

#include <cctype>
#include <cstdio>
#include <cstring>

namespace tarvek::serialization {

namespace {

constexpr std::size_t bool_token_size = 20;
// Shared by every deserializer of the process; see the header.
char bool_token[bool_token_size];

constexpr std::size_t number_buffer_size = 150;

[[noreturn]] void fail(char const* what)
{
    boost::throw_exception(deserialize_error(what));
}

bool is_number_char(int c, std::size_t position)
{
    return c == '+' || c == '-' || c == '.' || (c >= '0' && c <= '9') || (c == 'e' && position > 0);
}

// One digit of a \x escape, taken from the process's stdin; EOF arrives as the byte 0xff.
unsigned char hex_value(unsigned char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    fail("Invalid hex digit");
}

char read_hex_escape()
{
    auto const high = static_cast<unsigned char>(std::getc(stdin));
    auto const low = static_cast<unsigned char>(std::getc(stdin));
    return static_cast<char>(hex_value(high) * 16 + hex_value(low));
}

} // namespace

void JSON_Deserializer::skip_whitespace()
{
    while (std::isspace(in_.peek()))
        in_.get();
}

void JSON_Deserializer::expect(char c)
{
    skip_whitespace();
    int const next = in_.peek();
    if (next == c) {
        in_.get();
        return;
    }
    if (next == std::istream::traits_type::eof() && in_.eof())
        boost::throw_exception(deserialize_error(str::join("Expected '", c, "', got EOF")));
    boost::throw_exception(deserialize_error(
        str::join("Expected '", c, "', got '", static_cast<char>(next), "' (", next, ")")));
}

template <class T>
T JSON_Deserializer::read_number()
{
    skip_whitespace();
    char text[number_buffer_size];
    std::size_t length = 0;
    while (length < number_buffer_size - 1 && is_number_char(in_.peek(), length))
        text[length++] = static_cast<char>(in_.get());
    text[length] = '\0';
    if (length == 0)
        fail("Failed to parse number");

    T value{};
    if (std::sscanf(text, json::detail::format<T>::scan_fmt, &value) <= 0)
        fail("Failed to parse number");
    return value;
}

bool JSON_Deserializer::read_bool()
{
    skip_whitespace();
    std::size_t length = 0;
    while (std::isalnum(in_.peek())) {
        bool_token[length++] = static_cast<char>(in_.get());
        if (length == bool_token_size)
            fail("Parse error: Expected bool");
    }
    if (length == 4 && std::memcmp(bool_token, "true", 4) == 0)
        return true;
    if (length == 5 && std::memcmp(bool_token, "false", 5) == 0)
        return false;
    fail("Parse error: Expected bool");
}

unsigned char JSON_Deserializer::read_byte()
{
    return read_number<unsigned char>();
}

short JSON_Deserializer::read_int16()
{
    return read_number<short>();
}

unsigned short JSON_Deserializer::read_uint16()
{
    return read_number<unsigned short>();
}

int JSON_Deserializer::read_int32()
{
    return read_number<int>();
}

unsigned int JSON_Deserializer::read_uint32()
{
    return read_number<unsigned int>();
}

long JSON_Deserializer::read_int64()
{
    return read_number<long>();
}

unsigned long JSON_Deserializer::read_uint64()
{
    return read_number<unsigned long>();
}

double JSON_Deserializer::read_double()
{
    return read_number<double>();
}

std::string JSON_Deserializer::read_string()
{
    std::string result;
    skip_whitespace();
    int const quote = in_.peek();
    if (quote != '"' && quote != '\'')
        fail("Expected string");
    in_.get();

    // The end of the stream is not looked for: EOF is appended as 0xff (see the header).
    for (int c = in_.get(); c != quote; c = in_.get()) {
        if (c != '\\') {
            result += static_cast<char>(c);
            continue;
        }
        switch (int const escaped = in_.get()) {
        case 'n':
            result += '\n';
            break;
        case 't':
            result += '\t';
            break;
        case 'r':
            result += '\r';
            break;
        case 'b':
            result += '\b';
            break;
        case 'x':
            result += read_hex_escape();
            break;
        default:
            result += static_cast<char>(escaped);
        }
    }
    return result;
}

ObjectPath JSON_Deserializer::read_path()
{
    return ObjectPath(read_string());
}

void JSON_Deserializer::tuple_enter()
{
    expect('[');
}

void JSON_Deserializer::tuple_read_separator()
{
    expect(',');
}

void JSON_Deserializer::tuple_exit()
{
    expect(']');
}

int JSON_Deserializer::list_enter()
{
    expect('[');
    return -1;
}

void JSON_Deserializer::list_read_separator()
{
    expect(',');
}

bool JSON_Deserializer::list_try_exit()
{
    skip_whitespace();
    if (in_.peek() != ']')
        return false;
    in_.get();
    return true;
}

int JSON_Deserializer::dict_enter()
{
    expect('{');
    return -1;
}

bool JSON_Deserializer::dict_entry_try_enter(bool first)
{
    skip_whitespace();
    auto const next = static_cast<unsigned char>(in_.peek());
    if (next == '}')
        return false;
    if (first)
        return true;
    if (next != ',')
        fail("Parse error");
    in_.get();
    return true;
}

void JSON_Deserializer::dict_entry_read_kv_separator()
{
    expect(':');
}

void JSON_Deserializer::dict_entry_exit() {}

void JSON_Deserializer::dict_exit()
{
    expect('}');
}

void JSON_Deserializer::variant_enter() {}

void JSON_Deserializer::variant_exit() {}

namespace {

[[noreturn]] void no_typed_variant()
{
    boost::throw_exception(deserialize_error("Expected a typed variant: {\"signature\": ..., \"value\": ...}"));
}

} // namespace

std::string JSON_Deserializer::typed_variant_enter()
{
    // The text is read in one pass, so the members must come in the order of the writer.
    dict_enter();
    if (!dict_entry_try_enter(true) || read_string() != "signature")
        no_typed_variant();
    dict_entry_read_kv_separator();
    std::string signature = read_string();
    dict_entry_exit();
    if (!dict_entry_try_enter(false) || read_string() != "value")
        no_typed_variant();
    dict_entry_read_kv_separator();
    return signature;
}

void JSON_Deserializer::typed_variant_exit()
{
    dict_entry_exit();
    if (dict_entry_try_enter(false))
        no_typed_variant();
    dict_exit();
}

common::FileDescriptor JSON_Deserializer::read_fd()
{
    boost::throw_exception(deserialize_error("A file descriptor cannot be read from JSON text"));
}

} // namespace tarvek::serialization
