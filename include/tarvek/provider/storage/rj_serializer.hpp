// SPDX-License-Identifier: LGPL-2.1-or-later
// RJ_Serializer: an ISerializer that builds a RapidJSON value in memory, so that a live
// value writes itself into a stored document as it would into a bus message.
//
// The document form carries no bus types: a dictionary becomes a JSON object, lists and
// tuples become arrays, a variant is its bare content and an object path a plain string.
// A reader of the value must know its type; only a typed variant (tarvek::Variant) keeps
// its signature, as {"signature": "<signature>", "value": <value>}. A Unix file
// descriptor has no stored form and is refused.
//
// JSON member names are strings, so a dictionary key is stored as its text, which
// RJ_Deserializer parses back as the type that the reader asks for: a string or an object
// path as it stands, an integer of any width in decimal ("-32768", "18446744073709551615"),
// a bool as "true" or "false", and a double in the shortest text that reads back to the
// same bits ("0.30000000000000004", "1e-310", "-0", "inf", "nan"; a NaN loses its
// payload). So a{is} {1: "a"} is stored as {"1": "a"} and a{bi} {true: 1} as {"true": 1}.
// A container as a key is refused ("Object member name must be string").
//
// The value and the allocator of its document are borrowed and must outlive the
// serializer; one serializer fills one value, on one thread. There is no finishing step:
// whatever has been placed stays in the document, also when containers are left open.
// Misuse of the writing protocol raises tarvek::serialize_error and leaves the stack of
// open containers as it was.
#pragma once

#include <tarvek/glue/serializer.hpp>
#include <tarvek/provider/storage/rapidjson_fwd.hpp>

#include <deque>
#include <utility>
#include <variant>

namespace tarvek::provider::storage {

class RJ_Serializer : public glue::ISerializer {
public:
    // What the top of the stack expects next.
    enum class What {
        Value = 0,          // the root value, replaced by each write
        Dict = 1,           // an object, outside an entry
        List = 2,           // an array (of a list or a tuple)
        DictEntryKey = 3,   // an entry that has no key yet
        DictEntryValue = 4, // an entry with its key, waiting for its value
    };
    // Where a value goes: a value, or an object member whose value it becomes.
    using Pointer = std::variant<GenericValue*, GenericMember*>;

    RJ_Serializer(GenericValue& value, MemoryPoolAllocator& allocator);

    void write(bool value) override;
    void write(unsigned char value) override;
    void write(short value) override;
    void write(unsigned short value) override;
    void write(int value) override;
    void write(unsigned int value) override;
    void write(long value) override;
    void write(unsigned long value) override;
    void write(double value) override;
    // The characters are copied. A null `text` with a non-zero size raises
    // std::logic_error.
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
    // A typed variant (a tarvek::Variant) keeps its signature: it is stored as the object
    // {"signature": "<signature>", "value": <value>}, members in that order.
    void typed_variant_begin(char const* signature) override;
    void typed_variant_end() override;
    // Raises tarvek::serialize_error "A file descriptor cannot be stored in a document".
    void write_fd(int fd) override;

private:
    Pointer write_value(GenericValue& v);
    void begin_container(What what);
    void end_container(What what);

    MemoryPoolAllocator& allocator_;
    // The open containers, innermost at the back, above the root value.
    std::deque<std::pair<What, Pointer>> stack_;
};

} // namespace tarvek::provider::storage
