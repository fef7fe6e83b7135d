// SPDX-License-Identifier: LGPL-2.1-or-later
// Fuzz target: storage documents. The input is the JSON text of a stored object. It is
// read with read_json, looked through (path, interfaces, properties, equals, both forms of
// write_json), and applied to a live object whose interfaces have a property of every
// type that the value mapping covers, nested ones among them. A document whose "path"
// isn't the live object's has its interfaces applied one by one instead, so that the
// fuzzer needn't guess the path.
//
// Then the live object goes the way an application's saved state goes: captured,
// written with its defaults, read back and applied to a second live object, which must
// end up with the same values (doubles within a relative 1e-12, as the document reader
// doesn't promise the last bit).
//
// Storage reports values of the wrong JSON type as "RAPIDJSON_ASSERT(...)" lines on
// std::cerr; those would flood the fuzzer's output, so std::cerr is silenced here. Set
// TARVEK_FUZZ_VERBOSE to keep them.
#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/registry.hpp>
#include <tarvek/provider/storage/documents.hpp>
#include <tarvek/provider/variant.hpp>
#include <tarvek/serialization/json_serializer.hpp>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <sstream>
#include <streambuf>
#include <string>
#include <tuple>
#include <vector>

namespace fuzz {

struct Color {
    double r, g, b;
    bool operator==(Color const&) const = default;
};

} // namespace fuzz

template <>
inline constexpr auto tarvek::provider::struct_members<fuzz::Color> =
    std::make_tuple(&fuzz::Color::r, &fuzz::Color::g, &fuzz::Color::b);

namespace fuzz {
namespace {

namespace storage = tarvek::provider::storage;

using Table = std::map<std::string, std::vector<std::tuple<std::int64_t, double>>>;

class Everything : public tarvek::provider::Interface {
public:
    Everything() : Interface("org.fuzz.Everything") {}

    Property<bool> flag{*this, "Flag", false};
    Property<std::uint8_t> byte{*this, "Byte", 7};
    Property<std::int16_t> int16{*this, "Int16", -2};
    Property<std::uint16_t> uint16{*this, "Uint16", 0};
    Property<std::int32_t> int32{*this, "Int32", 0};
    Property<std::uint32_t> uint32{*this, "Uint32", 0};
    Property<std::int64_t> int64{*this, "Int64", 0};
    Property<std::uint64_t> uint64{*this, "Uint64", 0};
    Property<double> real{*this, "Real", 0.5};
    Property<std::string> text{*this, "Text", "default"};
    Property<tarvek::ObjectPath> path{*this, "Path", tarvek::ObjectPath("/a")};
    Property<std::vector<std::int32_t>> list{*this, "List", {1, 2}};
    Property<std::map<std::string, std::int32_t>> dict{*this, "Dict", {}};
    Property<std::tuple<std::int32_t, std::string>> pair{*this, "Pair", {0, ""}};
    Property<Color> color{*this, "Color", {0, 0, 0}};
    Property<std::vector<std::vector<std::string>>> nested{*this, "Nested", {}};
    Property<Table> table{*this, "Table", {}};
    Property<std::map<std::string, std::map<std::string, tarvek::ObjectPath>>> paths{*this, "Paths", {}};
    Property<tarvek::Variant> any{*this, "Any", tarvek::Variant(0)};
    Property<std::map<std::string, tarvek::Variant>> meta{*this, "Meta", {}};
};

class Lamp : public tarvek::provider::Interface {
public:
    Lamp() : Interface("org.fuzz.Lamp") {}

    Property<std::int32_t> level{*this, "Level", 0};
    Property<std::string> label{*this, "Label", ""};

protected:
    // Lets a document be refused as a whole.
    bool validate(Values const& v) const override { return v[level] <= 100; }
};

struct LiveObject {
    LiveObject() { registry.add_object(object, tarvek::ObjectPath("/fuzz/object")); }

    tarvek::API_Registry registry;
    tarvek::Object object;
    Everything& everything = tarvek::provider::add_interface<Everything>(object);
    Lamp& lamp = tarvek::provider::add_interface<Lamp>(object);
};

bool near(double a, double b)
{
    if (a == b)
        return true;
    if (std::isnan(a) || std::isnan(b))
        return std::isnan(a) && std::isnan(b);
    return std::fabs(a - b) <= 1e-12 * std::fmax(std::fabs(a), std::fabs(b));
}

template <class T>
bool near(T const& a, T const& b)
{
    return a == b;
}

// Variants by their text, whose six digits hide the last bits of doubles, and in which a
// NaN equals itself.
bool near(tarvek::Variant const& a, tarvek::Variant const& b)
{
    auto text = [](tarvek::Variant const& v) {
        std::ostringstream out;
        tarvek::serialization::JSON_Serializer sink(out);
        v.write(sink);
        return out.str();
    };
    return a.signature() == b.signature() && text(a) == text(b);
}

bool near(Color const& a, Color const& b)
{
    return near(a.r, b.r) && near(a.g, b.g) && near(a.b, b.b);
}

template <class... T>
bool near(std::tuple<T...> const& a, std::tuple<T...> const& b)
{
    return std::apply([&](auto const&... x) { return std::apply([&](auto const&... y) { return (near(x, y) && ...); }, b); }, a);
}

template <class T>
bool near(std::vector<T> const& a, std::vector<T> const& b)
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (!near(a[i], b[i]))
            return false;
    return true;
}

template <class K, class V>
bool near(std::map<K, V> const& a, std::map<K, V> const& b)
{
    if (a.size() != b.size())
        return false;
    for (auto i = a.begin(), j = b.begin(); i != a.end(); ++i, ++j)
        if (i->first != j->first || !near(i->second, j->second))
            return false;
    return true;
}

// Names the first property whose values differ, or returns null.
char const* first_difference(LiveObject const& a, LiveObject const& b)
{
#define FUZZ_COMPARE(interface, property) \
    if (!near(a.interface.property.get(), b.interface.property.get())) \
        return #interface "." #property;
    FUZZ_COMPARE(everything, flag)
    FUZZ_COMPARE(everything, byte)
    FUZZ_COMPARE(everything, int16)
    FUZZ_COMPARE(everything, uint16)
    FUZZ_COMPARE(everything, int32)
    FUZZ_COMPARE(everything, uint32)
    FUZZ_COMPARE(everything, int64)
    FUZZ_COMPARE(everything, uint64)
    FUZZ_COMPARE(everything, real)
    FUZZ_COMPARE(everything, text)
    FUZZ_COMPARE(everything, path)
    FUZZ_COMPARE(everything, list)
    FUZZ_COMPARE(everything, dict)
    FUZZ_COMPARE(everything, pair)
    FUZZ_COMPARE(everything, color)
    FUZZ_COMPARE(everything, nested)
    FUZZ_COMPARE(everything, table)
    FUZZ_COMPARE(everything, paths)
    FUZZ_COMPARE(everything, any)
    FUZZ_COMPARE(everything, meta)
    FUZZ_COMPARE(lamp, level)
    FUZZ_COMPARE(lamp, label)
#undef FUZZ_COMPARE
    return nullptr;
}

// Everything a reader of a document may look at; all failures here are the document's.
void look_through(storage::Object const& document)
{
    try {
        (void)document.path();
        for (auto const& interface : document.interfaces()) {
            (void)interface.name();
            for (auto const& property : interface.properties()) {
                (void)property.is_null();
                (void)property.equals(property);
            }
            (void)interface.equals(interface);
        }
    } catch (std::exception const&) {
    }
    try {
        storage::Object const copy(document);
        (void)copy.equals(document);
    } catch (std::exception const&) {
    }
    for (bool const keep_defaults : {true, false}) {
        try {
            std::ostringstream out;
            document.write_json(out, keep_defaults);
        } catch (std::exception const&) {
        }
    }
}

void apply(storage::Object const& document, tarvek::Object& live)
{
    try {
        document.apply(live);
        return;
    } catch (tarvek::invalid_argument const&) {
        // Another path, or no "interfaces": try the interfaces one by one below.
    } catch (std::exception const&) {
        return;
    }
    for (unsigned long i = 0; i < live.num_interfaces(); ++i) {
        try {
            auto& interface = live.interface(i);
            auto const stored = document.interfaces().try_find(interface.interface_name().str());
            if (stored)
                stored->apply(interface);
        } catch (std::exception const&) {
        }
    }
}

[[noreturn]] void fail(char const* what, std::string const& detail)
{
    std::fprintf(stderr, "storage_documents_fuzz: %s\n%s\n", what, detail.c_str());
    std::abort();
}

class NullBuffer : public std::streambuf {
protected:
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }
};

} // namespace
} // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    static fuzz::NullBuffer null_buffer;
    if (!std::getenv("TARVEK_FUZZ_VERBOSE"))
        std::cerr.rdbuf(&null_buffer);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    namespace storage = tarvek::provider::storage;

    std::string const text(reinterpret_cast<char const*>(data), size);
    storage::Object document;
    {
        std::istringstream in(text);
        document.read_json(in);
    }
    fuzz::look_through(document);

    fuzz::LiveObject live;
    fuzz::apply(document, live.object);
    // The application's own way in, tarvek::Object's operator>>, which applies as a whole.
    try {
        std::istringstream in(text);
        in >> live.object;
    } catch (std::exception const&) {
    }

    // The saved state of whatever the live object now holds must restore it.
    std::string saved;
    {
        std::ostringstream out;
        storage::Object(live.object).write_json(out, true);
        saved = out.str();
    }
    storage::Object restored;
    {
        std::istringstream in(saved);
        restored.read_json(in);
    }
    fuzz::LiveObject second;
    try {
        restored.apply(second.object);
    } catch (std::exception const& e) {
        fuzz::fail(e.what(), saved);
    }
    if (char const* const property = fuzz::first_difference(live, second))
        fuzz::fail(property, saved);
    return 0;
}
