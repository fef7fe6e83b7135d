// SPDX-License-Identifier: LGPL-2.1-or-later
// JSON_Serializer: an ISerializer that prints a value as compact, JSON-shaped text on a
// std::ostream, for logs, tools and files of the application. The text is a dialect meant
// to be read back by JSON_Deserializer: strings carry `\x` byte escapes, non-finite
// doubles print bare ("nan", "inf"), entries are separated by a comma and one blank, and
// there are no line breaks. A variant prints as its bare content, a typed variant as an
// object of its signature and value.
//
// The stream is borrowed and must outlive the serializer. One serializer belongs to one
// thread. Nothing is checked: no operation but write_fd throws or looks at the stream's state, brackets
// are not matched against each other, and containers left open at destruction stay open
// in the text.
#pragma once

#include <tarvek/glue/serializer.hpp>

#include <ostream>
#include <vector>

namespace tarvek::serialization {

class JSON_Serializer : public glue::ISerializer {
public:
    explicit JSON_Serializer(std::ostream& out) : out_(out) {}

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
    // A typed variant (a tarvek::Variant) prints with its signature, so that it reads back:
    // {"signature":"<signature>", "value":<value>}.
    void typed_variant_begin(char const* signature) override;
    void typed_variant_end() override;
    // Raises tarvek::serialize_error "A file descriptor cannot be written as JSON text";
    // the only operation that throws.
    void write_fd(int fd) override;

    // The separator bookkeeping, for writers that print brackets of their own.
    // add_entry() prints ", " before every entry of the innermost open container but its
    // first. add_entry() and close_container() need an open container.
    void open_container();
    void close_container();
    void add_entry();

private:
    std::ostream& out_;
    // One flag per open container, innermost at the back: true until its first entry.
    std::vector<bool> first_entry_;
};

} // namespace tarvek::serialization
