// SPDX-License-Identifier: LGPL-2.1-or-later
// JSON_Deserializer: an IDeserializer that scans the text of JSON_Serializer from a
// std::istream. There is no document model: the reader's calls say what comes next, each
// call takes just that much text (looking ahead by at most one character) or raises
// tarvek::deserialize_error, and the stream position is the whole state. On a failure the
// stream stays where it was left; nothing is rolled back.
//
// The stream is borrowed and must outlive the deserializer. Two quirks are part of this
// reader's definition and bind every caller:
//  - read_bool() scans into one process-wide buffer, so no two threads may read booleans
//    at the same time, even from different deserializers.
//  - The two hex digits of a `\x` escape are taken from the process's stdin, not from the
//    deserializer's stream; the digits in the text stay and become plain characters. Text
//    with `\x` escapes therefore does not read back as it was written.
// A string that lacks its closing quote is not detected: the end of the stream is appended
// as the byte 0xff until the string cannot grow any more.
#pragma once

#include <tarvek/glue/serializer.hpp>

#include <istream>
#include <string>

namespace tarvek::serialization {

namespace json::detail {

// The sscanf format of each number type.
template <class T>
struct format;

template <>
struct format<double> {
    static constexpr char const scan_fmt[] = "%lf";
};

template <>
struct format<unsigned long> {
    static constexpr char const scan_fmt[] = "%lu";
};

template <>
struct format<long> {
    static constexpr char const scan_fmt[] = "%ld";
};

template <>
struct format<unsigned int> {
    static constexpr char const scan_fmt[] = "%u";
};

template <>
struct format<int> {
    static constexpr char const scan_fmt[] = "%d";
};

template <>
struct format<unsigned short> {
    static constexpr char const scan_fmt[] = "%hu";
};

template <>
struct format<short> {
    static constexpr char const scan_fmt[] = "%hd";
};

template <>
struct format<unsigned char> {
    static constexpr char const scan_fmt[] = "%hhu";
};

} // namespace json::detail

class JSON_Deserializer : public glue::IDeserializer {
public:
    explicit JSON_Deserializer(std::istream& in) : in_(in) {}

    // Exactly `true` or `false`, case-sensitive.
    bool read_bool() override;
    // Numbers are taken as the characters + - . 0-9 and (not first) e, then converted by
    // sscanf. Whatever sscanf leaves is dropped and the range is not checked: the width of
    // the format decides (read_int32 on "1.5" gives 1, read_byte on "300" gives 44).
    unsigned char read_byte() override;
    short read_int16() override;
    unsigned short read_uint16() override;
    int read_int32() override;
    unsigned int read_uint32() override;
    long read_int64() override;
    unsigned long read_uint64() override;
    double read_double() override;
    // Quoted by " or '. Escapes: \n \t \r \b, \x (see above); any other escaped character
    // stands for itself.
    std::string read_string() override;
    // A string; a non-empty one must be a valid path (tarvek::invalid_argument otherwise).
    ObjectPath read_path() override;

    void tuple_enter() override;
    void tuple_read_separator() override;
    void tuple_exit() override;

    // Always -1: the text does not announce sizes.
    int list_enter() override;
    void list_read_separator() override;
    bool list_try_exit() override;

    // Always -1.
    int dict_enter() override;
    bool dict_entry_try_enter(bool first) override;
    void dict_entry_read_kv_separator() override;
    void dict_entry_exit() override;
    void dict_exit() override;

    void variant_enter() override;
    void variant_exit() override;
    // A typed variant as JSON_Serializer prints it: an object of "signature" and then
    // "value". Another shape raises tarvek::deserialize_error
    // "Expected a typed variant: {\"signature\": ..., \"value\": ...}".
    std::string typed_variant_enter() override;
    void typed_variant_exit() override;
    // Raises tarvek::deserialize_error "A file descriptor cannot be read from JSON text".
    common::FileDescriptor read_fd() override;

private:
    void skip_whitespace();
    void expect(char c);
    template <class T>
    T read_number();

    std::istream& in_;
};

} // namespace tarvek::serialization
