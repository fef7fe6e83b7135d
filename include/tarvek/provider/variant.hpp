// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek::Variant: one value of any type that the typed mapping covers (value_codec.hpp),
// variants included, together with its D-Bus signature. It is `v` on the bus, so a
// std::map<std::string, tarvek::Variant> is `a{sv}`, and it serves as a property, a method
// argument or result, a signal argument and an element of containers.
//
//     tarvek::Variant level = std::uint32_t{3};               // "u"
//     std::map<std::string, tarvek::Variant> meta{{"title", "Song"}, {"length", 240L}};
//     auto title = meta.at("title").get<std::string>();       // raises on another type
//     auto boxed = tarvek::Variant::of(level);                 // "v", a variant in a variant
//
// A value is plain data: copies are independent, and a Variant is used like any other
// value, by one thread at a time or shared as const. Two variants are equal when their
// signatures and values are (a double NaN is never equal, as for double itself). A
// default-constructed Variant is empty: it has no signature and cannot be written.
//
// Unix file descriptors never go into a variant: a type that carries one is refused at
// compile time, and a variant read with an `h` in it is refused when it is read. So is
// any signature outside the mapping (such as `g`) and a value nested deeper than
// `max_depth` containers and variants. These failures raise tarvek::invalid_argument, which
// a bus client receives as "org.freedesktop.DBus.Error.InvalidArgs".
//
// A variant is written with ISerializer::typed_variant_begin, so JSON text and stored
// documents keep it as {"signature": "<signature>", "value": <value>} and read it back
// exactly; the bus carries it as an ordinary `v`.
#pragma once

#include <tarvek/common/object_path.hpp>
#include <tarvek/glue/serializer.hpp>
#include <tarvek/provider/value_codec.hpp>

#include <concepts>
#include <cstddef>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

namespace tarvek {

namespace detail::variant {

// The element count of the list or dictionary that follows.
struct Count {
    unsigned long value;
    friend bool operator==(Count const&, Count const&) = default;
};

// The signature of a nested variant, in front of its contents.
struct Nested {
    std::string signature;
    friend bool operator==(Nested const&, Nested const&) = default;
};

// A value is kept flat: its basic values in the order in which they are written, a Count
// in front of every list and dictionary, a Nested in front of every inner variant. Tuples
// and dictionary entries leave no token: the signature says where they stand.
using Token = std::variant<bool, unsigned char, short, unsigned short, int, unsigned int, long, unsigned long,
    double, std::string, ObjectPath, Count, Nested>;

// Records what a typed value writes, as tokens.
class Recorder final : public glue::ISerializer {
public:
    explicit Recorder(std::vector<Token>& tokens) noexcept
        : tokens_(tokens)
    {
    }

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
    void typed_variant_begin(char const* signature) override;
    void typed_variant_end() override;
    // Raises tarvek::serialize_error: a variant holds no descriptor.
    void write_fd(int fd) override;

private:
    std::vector<Token>& tokens_;
    // Where the Count of each open list or dictionary stands.
    std::vector<std::size_t> counts_;
};

// Serves tokens to a typed reader whose type matches the signature they were made with.
class Replayer final : public glue::IDeserializer {
public:
    explicit Replayer(std::vector<Token> const& tokens) noexcept
        : tokens_(tokens)
    {
    }

    bool read_bool() override;
    unsigned char read_byte() override;
    short read_int16() override;
    unsigned short read_uint16() override;
    int read_int32() override;
    unsigned int read_uint32() override;
    long read_int64() override;
    unsigned long read_uint64() override;
    double read_double() override;
    std::string read_string() override;
    ObjectPath read_path() override;
    void tuple_enter() override;
    void tuple_read_separator() override;
    void tuple_exit() override;
    int list_enter() override;
    void list_read_separator() override;
    bool list_try_exit() override;
    int dict_enter() override;
    bool dict_entry_try_enter(bool first) override;
    void dict_entry_read_kv_separator() override;
    void dict_entry_exit() override;
    void dict_exit() override;
    void variant_enter() override;
    void variant_exit() override;
    std::string typed_variant_enter() override;
    void typed_variant_exit() override;
    common::FileDescriptor read_fd() override;

private:
    template <class T> T const& take();
    int enter();

    std::vector<Token> const& tokens_;
    std::size_t next_ = 0;
    // Elements left in each open list or dictionary.
    std::vector<unsigned long> remaining_;
};

} // namespace detail::variant

class Variant {
public:
    // Containers and variants, counted together, that the contents of one variant read from
    // a source may nest.
    static constexpr unsigned max_depth = 64;

    // Empty: no signature, no value.
    Variant() = default;

    // Holds a copy of `value`. A Variant given here is copied, not nested: use of() to put
    // a variant into a variant.
    template <provider::BusValue T>
    requires(!std::same_as<T, Variant>)
        Variant(T const& value) // NOLINT(google-explicit-constructor): a{sv} literals read naturally
    {
        record(value);
    }
    Variant(char const* text)
        : Variant(std::string(text))
    {
    } // NOLINT(google-explicit-constructor)

    // A variant holding `value`, whatever its type; of(variant) has the signature "v".
    template <provider::BusValue T> static Variant of(T const& value)
    {
        Variant result;
        result.record(value);
        return result;
    }

    // The signature of the value, one complete type; empty for an empty variant.
    std::string const& signature() const noexcept { return signature_; }
    bool empty() const noexcept { return signature_.empty(); }

    // Whether the value is exactly of type T (the signatures match).
    template <provider::BusValue T> bool holds() const noexcept
    {
        return signature_ == provider::signature_of<T>;
    }

    // The value as a T. Raises tarvek::invalid_argument
    // "Variant holds <signature>, not <signature of T>" when the types differ.
    template <provider::BusValue T> T get() const
    {
        if (!holds<T>())
            refuse(provider::signature_of<T>);
        detail::variant::Replayer source(tokens_);
        return provider::read_value<T>(source);
    }

    // Writes the variant as a typed variant. Raises tarvek::invalid_state_error for an
    // empty variant, and what the sink raises.
    void write(glue::ISerializer& sink) const;
    // Reads a typed variant. Raises tarvek::invalid_argument for a signature that isn't one
    // complete type of the mapping, holds `h`, or nests too deeply; and what the source
    // raises.
    static Variant read(glue::IDeserializer& source);

    friend bool operator==(Variant const&, Variant const&) = default;

private:
    template <class T> void record(T const& value)
    {
        static_assert(!provider::carries_fd<T>, "a Variant cannot hold a file descriptor");
        detail::variant::Recorder sink(tokens_);
        provider::write_value(sink, value);
        signature_ = provider::signature_of<T>;
    }
    [[noreturn]] void refuse(char const* wanted) const;

    std::string signature_;
    std::vector<detail::variant::Token> tokens_;
};

} // namespace tarvek
