// SPDX-License-Identifier: LGPL-2.1-or-later
// The abstract sink and source of values. A property value, a method result or a signal
// argument describes itself to an ISerializer as basic values, tuples, dictionaries, lists
// and variants, and reads itself back from an IDeserializer, without knowing whether the
// other side is a bus message, JSON text or a stored document.
//
// Writing protocol: a list is list_begin, then per element list_entry_begin, the element,
// list_entry_end, and list_end; tuples and dictionaries likewise with their entry brackets
// (a dictionary entry is dict_entry_begin, key, dict_entry_kv_separator, value,
// dict_entry_end); a variant is variant_begin(signature), the value, variant_end. Entry
// brackets are obligatory even where a sink does nothing in them, and every signature
// must be correct even for sinks that ignore it.
//
// Reading protocol: a list is list_enter, then list_try_exit before every element
// (true: the list is over and has been left), with list_read_separator between two
// elements. A tuple is tuple_enter, members with tuple_read_separator between them,
// tuple_exit. A dictionary is dict_enter, then dict_entry_try_enter(first) before each
// entry (true: entered; read key, dict_entry_read_kv_separator, value, dict_entry_exit;
// false: call dict_exit). A variant is variant_enter, the value, variant_exit. A source
// fails a read of a type other than the one it holds.
//
// A typed variant is one whose reader does not know the contained type: the value of a
// tarvek::Variant. Writing: typed_variant_begin(signature), the value, typed_variant_end.
// Reading: typed_variant_enter gives the contained signature, then the value, then
// typed_variant_exit. On the bus it is the same `v` as a plain variant; JSON text and
// stored documents, which keep a plain variant as its bare content, keep a typed one as
// {"signature": <signature>, "value": <value>}, so that it reads back exactly.
//
// A Unix file descriptor (`h`) goes to write_fd, which leaves it the caller's (a sink that
// keeps it duplicates it), and comes from read_fd as a new descriptor that the caller
// owns. Only the bus carries descriptors: the other sinks and sources refuse them.
//
// The order of the virtual operations is part of the library's ABI, and operations are
// only ever added at the end. Neither class is thread-safe: one sink or source is used by
// one thread at a time.
#pragma once

#include <tarvek/common/file_descriptor.hpp>
#include <tarvek/common/object_path.hpp>

#include <string>

namespace tarvek::glue {

class ISerializer {
public:
    virtual ~ISerializer() = default;

    virtual void write(bool value) = 0;
    virtual void write(unsigned char value) = 0;
    virtual void write(short value) = 0;
    virtual void write(unsigned short value) = 0;
    virtual void write(int value) = 0;
    virtual void write(unsigned int value) = 0;
    virtual void write(long value) = 0;
    virtual void write(unsigned long value) = 0;
    virtual void write(double value) = 0;
    // With `null_terminated` false exactly `size` bytes count. With it true a NUL follows
    // the text, and `size` may be 0 to say "take the length from the NUL".
    virtual void write(char const* text, unsigned long size, bool null_terminated) = 0;
    virtual void write(ObjectPath const& value) = 0;

    // `size` is the announced number of entries (informative only). `signature` is the
    // D-Bus signature of the members without parentheses, e.g. "sv".
    virtual void tuple_begin(unsigned long size, char const* signature) = 0;
    virtual void tuple_entry_begin() = 0;
    virtual void tuple_entry_end() = 0;
    virtual void tuple_end() = 0;

    // `signature` is one entry with braces ("{sv}"); for dict_entry_begin without ("sv").
    virtual void dict_begin(unsigned long size, char const* signature) = 0;
    virtual void dict_entry_begin(char const* signature) = 0;
    virtual void dict_entry_kv_separator() = 0;
    virtual void dict_entry_end() = 0;
    virtual void dict_end() = 0;

    // `signature` is the element's ("s" for a list of strings).
    virtual void list_begin(unsigned long size, char const* signature) = 0;
    virtual void list_entry_begin() = 0;
    virtual void list_entry_end() = 0;
    virtual void list_end() = 0;

    // `signature` is that of the one contained value.
    virtual void variant_begin(char const* signature) = 0;
    virtual void variant_end() = 0;

    // Added after the operations above; see the file comment.
    virtual void typed_variant_begin(char const* signature) = 0;
    virtual void typed_variant_end() = 0;
    // Sinks that cannot carry a descriptor raise tarvek::serialize_error.
    virtual void write_fd(int fd) = 0;
};

class IDeserializer {
public:
    virtual ~IDeserializer() = default;

    virtual bool read_bool() = 0;
    virtual unsigned char read_byte() = 0;
    virtual short read_int16() = 0;
    virtual unsigned short read_uint16() = 0;
    virtual int read_int32() = 0;
    virtual unsigned int read_uint32() = 0;
    virtual long read_int64() = 0;
    virtual unsigned long read_uint64() = 0;
    virtual double read_double() = 0;
    virtual std::string read_string() = 0;
    virtual ObjectPath read_path() = 0;

    virtual void tuple_enter() = 0;
    virtual void tuple_read_separator() = 0;
    virtual void tuple_exit() = 0;

    // Number of elements if the source knows it, -1 otherwise.
    virtual int list_enter() = 0;
    virtual void list_read_separator() = 0;
    // True: the list has ended and has been left. False: an element follows.
    virtual bool list_try_exit() = 0;

    virtual int dict_enter() = 0;
    // True: an entry follows and has been entered. False: no more entries; dict_exit is
    // still to be called.
    virtual bool dict_entry_try_enter(bool first) = 0;
    virtual void dict_entry_read_kv_separator() = 0;
    virtual void dict_entry_exit() = 0;
    virtual void dict_exit() = 0;

    virtual void variant_enter() = 0;
    virtual void variant_exit() = 0;

    // Added after the operations above; see the file comment. Returns the signature of
    // the contained value as the source holds it; the reader checks it before use.
    virtual std::string typed_variant_enter() = 0;
    virtual void typed_variant_exit() = 0;
    // Sources that cannot carry a descriptor raise tarvek::deserialize_error.
    virtual common::FileDescriptor read_fd() = 0;
};

} // namespace tarvek::glue
