// SPDX-License-Identifier: LGPL-2.1-or-later
// RJ_Deserializer: an IDeserializer that walks a RapidJSON value, so that a live value
// reads itself from a stored document as it would from a bus message. It only reads.
//
// The document carries no bus types, so the reader's calls decide. A typed read of a value
// (keys: see below) takes the next JSON value and assumes it is of the kind asked for; a
// wrong kind is reported by the RAPIDJSON_ASSERT hook on std::cerr and the read goes on
// with whatever the value holds. Only read_byte, read_int16 and read_uint16 check the
// range of a value, and apart from dictionary keys only structural faults
// raise (tarvek::deserialize_error, or std::bad_variant_access when a list or dictionary
// operation meets a container of the other kind). Nothing is rolled back on a failure.
//
// A variant leaves no trace in the document, so variant_enter and variant_exit do nothing;
// a typed variant (tarvek::Variant) is an object of its signature and its value.
// A dictionary key is the member's name, a JSON string holding the key's text (see
// RJ_Serializer), and the read that the reader asks for parses it as that type: read_string
// takes it as it stands, read_int32 wants "-5", read_bool "true" or "false", read_double any
// text std::from_chars reads whole ("0.1", "1e-310", "-0", "inf", "nan"), read_path an empty
// or valid object path. A key text that does not parse whole as the type, or is out of its
// range, raises tarvek::deserialize_error "Dictionary key is not a valid <type>: <text>",
// with <type> one of bool, byte, int16, uint16, int32, uint32, int64, uint64, double,
// object path.
//
// The value is borrowed: it must outlive the deserializer and not change meanwhile. One
// deserializer is used on one thread.
#pragma once

#include <tarvek/glue/serializer.hpp>
#include <tarvek/provider/storage/rapidjson_fwd.hpp>

#include <deque>
#include <variant>

namespace tarvek::provider::storage {

class RJ_Deserializer : public glue::IDeserializer {
public:
    explicit RJ_Deserializer(GenericValue const& value);

    bool read_bool() override;
    unsigned char read_byte() override;
    short read_int16() override;
    unsigned short read_uint16() override;
    int read_int32() override;
    unsigned int read_uint32() override;
    long read_int64() override;
    unsigned long read_uint64() override;
    // Any kind of JSON number.
    double read_double() override;
    // Up to the first NUL byte.
    std::string read_string() override;
    ObjectPath read_path() override;

    void tuple_enter() override;
    void tuple_read_separator() override;
    // Raises "Failed to exit tuple" unless every member has been read.
    void tuple_exit() override;

    // The number of elements.
    int list_enter() override;
    void list_read_separator() override;
    bool list_try_exit() override;

    // The number of members.
    int dict_enter() override;
    // `first` is not needed: the cursor knows its place.
    bool dict_entry_try_enter(bool first) override;
    void dict_entry_read_kv_separator() override;
    void dict_entry_exit() override;
    // Leaves the dictionary however many members are left.
    void dict_exit() override;

    void variant_enter() override;
    void variant_exit() override;
    // A typed variant is the object {"signature": "<signature>", "value": <value>}; members
    // in any order, no others. Anything else raises tarvek::deserialize_error
    // "A stored Variant is an object of \"signature\" and \"value\"".
    std::string typed_variant_enter() override;
    void typed_variant_exit() override;
    // Raises tarvek::deserialize_error "A file descriptor cannot be read from a document".
    common::FileDescriptor read_fd() override;

private:
    struct ListCursor {
        GenericValue const* current;
        GenericValue const* end;
    };
    struct DictCursor {
        GenericMember const* current;
        GenericMember const* end;
        bool key_passed;
    };
    // The root value (reads do not advance) or a cursor of an open container.
    using State = std::variant<GenericValue const*, ListCursor, DictCursor>;

    // The member name that the next read gives, when it is a dictionary key.
    GenericValue const* key_name() const;
    GenericValue const& next_value();
    template <class Cursor>
    Cursor& top();

    std::deque<State> stack_;
};

} // namespace tarvek::provider::storage
