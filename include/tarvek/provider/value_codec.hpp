// SPDX-License-Identifier: LGPL-2.1-or-later
// The compile-time mapping from C++ types to D-Bus signatures and to calls on
// glue::ISerializer / glue::IDeserializer. It is what lets typed properties, method
// arguments, signals and stored documents describe their values without hand-written
// serialisation code. Header-only and free of state; usable from any thread.
//
//   bool b, std::uint8_t y, std::int16_t n, std::uint16_t q, std::int32_t i, std::uint32_t u,
//   std::int64_t x, std::uint64_t t, double d, std::string s, tarvek::ObjectPath o,
//   std::vector<T> aT, std::map<K, V> a{KV}, std::tuple<T...> (T...),
//   tarvek::Variant v (include <tarvek/provider/variant.hpp> to use it),
//   tarvek::common::FileDescriptor h (method arguments and results only: a descriptor
//   received belongs to the reader, one written stays the writer's)
//
// An application struct travels as a tuple of its members once it names them:
//
//   struct Color { double r, g, b; };
//   template <> inline constexpr auto tarvek::provider::struct_members<Color> =
//       std::make_tuple(&Color::r, &Color::g, &Color::b);
//
// Signatures are constants with static storage: `signature_of<T>` is a NUL-terminated
// `char const*` that lives for the whole program.
#pragma once

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/file_descriptor.hpp>
#include <tarvek/common/object_path.hpp>
#include <tarvek/glue/serializer.hpp>

#include <boost/throw_exception.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace tarvek {
class Variant;
} // namespace tarvek

namespace tarvek::provider {

// Specialise for an application struct: a std::tuple of pointers to its data members, in
// the order in which they travel.
template <class T>
inline constexpr bool struct_members = false;

namespace typed {

// A compile-time string; signatures are built from these by concatenation.
template <std::size_t N>
struct FixedString {
    char text[N + 1] = {};

    constexpr FixedString() = default;
    constexpr FixedString(char const (&literal)[N + 1])
    {
        for (std::size_t i = 0; i < N; ++i)
            text[i] = literal[i];
    }
    static constexpr std::size_t size() { return N; }
};

template <std::size_t N>
FixedString(char const (&)[N]) -> FixedString<N - 1>;

template <std::size_t A, std::size_t B>
constexpr FixedString<A + B> operator+(FixedString<A> const& a, FixedString<B> const& b)
{
    FixedString<A + B> out;
    for (std::size_t i = 0; i < A; ++i)
        out.text[i] = a.text[i];
    for (std::size_t i = 0; i < B; ++i)
        out.text[A + i] = b.text[i];
    return out;
}

template <class T>
constexpr bool is_struct_v = !std::is_same_v<std::remove_cv_t<decltype(struct_members<T>)>, bool>;

template <class T>
struct is_vector : std::false_type {};
template <class T, class A>
struct is_vector<std::vector<T, A>> : std::true_type {};

template <class T>
struct is_map : std::false_type {};
template <class K, class V, class C, class A>
struct is_map<std::map<K, V, C, A>> : std::true_type {};

template <class T>
struct is_tuple : std::false_type {};
template <class... T>
struct is_tuple<std::tuple<T...>> : std::true_type {};

template <class T>
struct member_type;
template <class S, class M>
struct member_type<M S::*> {
    using type = M;
};

template <class T>
struct Codec;

// Basic values: one code, one write, one read.
#define TARVEK_BASIC_CODEC(type, code, reader)                                        \
    template <>                                                                       \
    struct Codec<type> {                                                              \
        static constexpr FixedString<1> signature{code};                              \
        static void write(glue::ISerializer& sink, type value) { sink.write(value); } \
        static type read(glue::IDeserializer& source) { return source.reader(); }     \
    };

TARVEK_BASIC_CODEC(bool, "b", read_bool)
TARVEK_BASIC_CODEC(unsigned char, "y", read_byte)
TARVEK_BASIC_CODEC(short, "n", read_int16)
TARVEK_BASIC_CODEC(unsigned short, "q", read_uint16)
TARVEK_BASIC_CODEC(int, "i", read_int32)
TARVEK_BASIC_CODEC(unsigned int, "u", read_uint32)
TARVEK_BASIC_CODEC(long, "x", read_int64)
TARVEK_BASIC_CODEC(unsigned long, "t", read_uint64)
TARVEK_BASIC_CODEC(double, "d", read_double)
#undef TARVEK_BASIC_CODEC

template <>
struct Codec<std::string> {
    static constexpr FixedString<1> signature{"s"};
    static void write(glue::ISerializer& sink, std::string const& value)
    {
        // A std::string always has a NUL behind its characters.
        sink.write(value.c_str(), value.size(), true);
    }
    static std::string read(glue::IDeserializer& source) { return source.read_string(); }
};

template <>
struct Codec<ObjectPath> {
    static constexpr FixedString<1> signature{"o"};
    static void write(glue::ISerializer& sink, ObjectPath const& value) { sink.write(value); }
    static ObjectPath read(glue::IDeserializer& source) { return source.read_path(); }
};

// Declared here so that the mapping knows `v` without the whole variant header; the
// operations are defined with tarvek::Variant (variant.hpp), which a user of them includes.
template <>
struct Codec<Variant> {
    static constexpr FixedString<1> signature{"v"};
    static void write(glue::ISerializer& sink, Variant const& value);
    static Variant read(glue::IDeserializer& source);
};

// The reader owns what it receives; what is written is duplicated by the sink that keeps it.
template <>
struct Codec<common::FileDescriptor> {
    static constexpr FixedString<1> signature{"h"};
    static void write(glue::ISerializer& sink, common::FileDescriptor const& value) { sink.write_fd(value.fd()); }
    static common::FileDescriptor read(glue::IDeserializer& source) { return source.read_fd(); }
};

template <class T, class A>
struct Codec<std::vector<T, A>> {
    static constexpr auto signature = FixedString<1>("a") + Codec<T>::signature;
    static void write(glue::ISerializer& sink, std::vector<T, A> const& value)
    {
        sink.list_begin(value.size(), Codec<T>::signature.text);
        for (auto const& element : value) {
            sink.list_entry_begin();
            Codec<T>::write(sink, element);
            sink.list_entry_end();
        }
        sink.list_end();
    }
    static std::vector<T, A> read(glue::IDeserializer& source)
    {
        std::vector<T, A> value;
        int const announced = source.list_enter();
        if (announced > 0)
            value.reserve(static_cast<std::size_t>(announced));
        for (bool first = true; !source.list_try_exit(); first = false) {
            if (!first)
                source.list_read_separator();
            value.push_back(Codec<T>::read(source));
        }
        return value;
    }
};

template <class K, class V, class C, class A>
struct Codec<std::map<K, V, C, A>> {
    static_assert(Codec<K>::signature.size() == 1, "a dictionary key must be a basic type");
    static constexpr auto entry_signature = Codec<K>::signature + Codec<V>::signature;
    static constexpr auto signature = FixedString<1>("a") + FixedString<1>("{") + entry_signature + FixedString<1>("}");
    static constexpr auto braced = FixedString<1>("{") + entry_signature + FixedString<1>("}");

    static void write(glue::ISerializer& sink, std::map<K, V, C, A> const& value)
    {
        sink.dict_begin(value.size(), braced.text);
        for (auto const& [key, element] : value) {
            sink.dict_entry_begin(entry_signature.text);
            Codec<K>::write(sink, key);
            sink.dict_entry_kv_separator();
            Codec<V>::write(sink, element);
            sink.dict_entry_end();
        }
        sink.dict_end();
    }
    static std::map<K, V, C, A> read(glue::IDeserializer& source)
    {
        std::map<K, V, C, A> value;
        source.dict_enter();
        for (bool first = true; source.dict_entry_try_enter(first); first = false) {
            K key = Codec<K>::read(source);
            source.dict_entry_read_kv_separator();
            value.insert_or_assign(std::move(key), Codec<V>::read(source));
            source.dict_entry_exit();
        }
        source.dict_exit();
        return value;
    }
};

// Writes and reads the members of a tuple (or of a struct seen through member pointers)
// with the tuple brackets around them.
template <class... M>
struct TupleCodec {
    static constexpr auto members_signature = (FixedString<0>() + ... + Codec<M>::signature);
    static constexpr auto signature = FixedString<1>("(") + members_signature + FixedString<1>(")");

    template <class... Ref>
    static void write(glue::ISerializer& sink, Ref const&... members)
    {
        sink.tuple_begin(sizeof...(M), members_signature.text);
        ((sink.tuple_entry_begin(), Codec<M>::write(sink, members), sink.tuple_entry_end()), ...);
        sink.tuple_end();
    }
    template <class... Ref>
    static void read(glue::IDeserializer& source, Ref&... members)
    {
        source.tuple_enter();
        bool first = true;
        auto read_one = [&](auto& member) {
            if (!first)
                source.tuple_read_separator();
            first = false;
            member = Codec<std::remove_reference_t<decltype(member)>>::read(source);
        };
        (read_one(members), ...);
        source.tuple_exit();
    }
};

template <class... T>
struct Codec<std::tuple<T...>> {
    using Members = TupleCodec<T...>;
    static constexpr auto signature = Members::signature;
    static void write(glue::ISerializer& sink, std::tuple<T...> const& value)
    {
        std::apply([&](auto const&... members) { Members::write(sink, members...); }, value);
    }
    static std::tuple<T...> read(glue::IDeserializer& source)
    {
        std::tuple<T...> value;
        std::apply([&](auto&... members) { Members::read(source, members...); }, value);
        return value;
    }
};

template <class S, class Pointers>
struct StructCodecOf;
template <class S, class... P>
struct StructCodecOf<S, std::tuple<P...>> {
    using Members = TupleCodec<typename member_type<P>::type...>;
};

template <class S>
    requires is_struct_v<S>
struct Codec<S> {
    using Members = typename StructCodecOf<S, std::remove_cv_t<decltype(struct_members<S>)>>::Members;
    static constexpr auto signature = Members::signature;
    static void write(glue::ISerializer& sink, S const& value)
    {
        std::apply([&](auto... member) { Members::write(sink, value.*member...); }, struct_members<S>);
    }
    static S read(glue::IDeserializer& source)
    {
        S value{};
        std::apply([&](auto... member) { Members::read(source, value.*member...); }, struct_members<S>);
        return value;
    }
};

// std::int64_t and long are one type on our platforms, as are the other fixed widths and
// their basic types; `signed char`/`char` have no D-Bus type and are refused at compile time.
// Element by element rather than through std::string_view, which some compilers will not
// evaluate at compile time on a static array under the sanitizers.
template <std::size_t N>
constexpr bool contains(FixedString<N> const& signature, char code)
{
    for (std::size_t i = 0; i < N; ++i)
        if (signature.text[i] == code)
            return true;
    return false;
}

template <class T>
struct SignatureHolder {
    static constexpr auto value = Codec<T>::signature;
};

} // namespace typed

// True for every type that the mapping covers.
template <class T>
concept BusValue = requires { typed::Codec<T>::signature; };

// The D-Bus signature of T, NUL-terminated, with static storage.
template <BusValue T>
inline constexpr char const* signature_of = typed::SignatureHolder<T>::value.text;

template <BusValue T>
inline constexpr std::size_t signature_size_of = typed::SignatureHolder<T>::value.size();

// True for a type that holds a Unix file descriptor somewhere: such a value can travel only
// as a method argument or result on the bus, never as a property, in a variant or in a
// stored document.
template <BusValue T>
inline constexpr bool carries_fd = typed::contains(typed::SignatureHolder<T>::value, 'h');

// Writes `value` to `sink` following the calling protocol of ISerializer.
template <BusValue T>
void write_value(glue::ISerializer& sink, T const& value)
{
    typed::Codec<T>::write(sink, value);
}

// Reads a T from `source`; the source raises if it holds something else.
template <BusValue T>
T read_value(glue::IDeserializer& source)
{
    return typed::Codec<T>::read(source);
}

} // namespace tarvek::provider
