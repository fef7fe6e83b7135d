// SPDX-License-Identifier: LGPL-2.1-or-later
// One value with every basic type and every kind of container, written through a sink and
// read back through the matching source of each back end.
#include "support/codecs.hpp"
#include "support/sdbus_codec.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <string>
#include <vector>

using tarvek::ObjectPath;
using tarvek::glue::IDeserializer;
using tarvek::glue::ISerializer;

namespace {

struct Record { // (sud)
    std::string name;
    unsigned int count = 0;
    double weight = 0;
    bool operator==(Record const&) const = default;
};

// Written as the dictionary a{sv}; the key tells a reader the type inside the variant.
struct Settings {
    int level = 0;                 // "level": i
    std::string label;             // "label": s
    std::vector<std::string> tags; // "tags": as
    bool operator==(Settings const&) const = default;
};

struct Sample { // (bynqiuxtdso a(sud) a{sa{si}} aai v a{sv})
    bool flag = false;
    unsigned char byte = 0;
    short int16 = 0;
    unsigned short uint16 = 0;
    int int32 = 0;
    unsigned int uint32 = 0;
    long int64 = 0;
    unsigned long uint64 = 0;
    double real = 0;
    std::string text;
    ObjectPath path;
    std::vector<Record> records;
    std::map<std::string, std::map<std::string, int>> groups;
    std::vector<std::vector<int>> matrix;
    Record boxed; // in a variant
    Settings settings;
    bool operator==(Sample const&) const = default;
};

constexpr char sample_signature[] = "bynqiuxtdsoa(sud)a{sa{si}}aaiva{sv}";

// ---- writing, by the protocol of the contract ----

template <class Body>
void tuple_entry(ISerializer& out, Body body)
{
    out.tuple_entry_begin();
    body();
    out.tuple_entry_end();
}

template <class Container, class Body>
void write_list(ISerializer& out, Container const& elements, char const* signature, Body body)
{
    out.list_begin(elements.size(), signature);
    for (auto const& element : elements) {
        out.list_entry_begin();
        body(element);
        out.list_entry_end();
    }
    out.list_end();
}

void write_string(ISerializer& out, std::string const& text)
{
    out.write(text.c_str(), text.size(), true);
}

void write_record(ISerializer& out, Record const& record)
{
    out.tuple_begin(3, "sud");
    tuple_entry(out, [&] { write_string(out, record.name); });
    tuple_entry(out, [&] { out.write(record.count); });
    tuple_entry(out, [&] { out.write(record.weight); });
    out.tuple_end();
}

template <class Value>
void write_entry(ISerializer& out, char const* signature, std::string const& key, Value write_value)
{
    out.dict_entry_begin(signature);
    write_string(out, key);
    out.dict_entry_kv_separator();
    write_value();
    out.dict_entry_end();
}

void write_settings(ISerializer& out, Settings const& settings)
{
    out.dict_begin(3, "{sv}");
    write_entry(out, "sv", "level", [&] {
        out.variant_begin("i");
        out.write(settings.level);
        out.variant_end();
    });
    write_entry(out, "sv", "label", [&] {
        out.variant_begin("s");
        write_string(out, settings.label);
        out.variant_end();
    });
    write_entry(out, "sv", "tags", [&] {
        out.variant_begin("as");
        write_list(out, settings.tags, "s", [&](std::string const& tag) { write_string(out, tag); });
        out.variant_end();
    });
    out.dict_end();
}

void write_sample(ISerializer& out, Sample const& sample)
{
    out.tuple_begin(16, sample_signature);
    tuple_entry(out, [&] { out.write(sample.flag); });
    tuple_entry(out, [&] { out.write(sample.byte); });
    tuple_entry(out, [&] { out.write(sample.int16); });
    tuple_entry(out, [&] { out.write(sample.uint16); });
    tuple_entry(out, [&] { out.write(sample.int32); });
    tuple_entry(out, [&] { out.write(sample.uint32); });
    tuple_entry(out, [&] { out.write(sample.int64); });
    tuple_entry(out, [&] { out.write(sample.uint64); });
    tuple_entry(out, [&] { out.write(sample.real); });
    tuple_entry(out, [&] { write_string(out, sample.text); });
    tuple_entry(out, [&] { out.write(sample.path); });
    tuple_entry(out, [&] { write_list(out, sample.records, "(sud)", [&](Record const& r) { write_record(out, r); }); });
    tuple_entry(out, [&] {
        out.dict_begin(sample.groups.size(), "{sa{si}}");
        for (auto const& [name, members] : sample.groups) {
            write_entry(out, "sa{si}", name, [&] {
                out.dict_begin(members.size(), "{si}");
                for (auto const& [member, value] : members)
                    write_entry(out, "si", member, [&] { out.write(value); });
                out.dict_end();
            });
        }
        out.dict_end();
    });
    tuple_entry(out, [&] {
        write_list(out, sample.matrix, "ai", [&](std::vector<int> const& row) {
            write_list(out, row, "i", [&](int value) { out.write(value); });
        });
    });
    tuple_entry(out, [&] {
        out.variant_begin("(sud)");
        write_record(out, sample.boxed);
        out.variant_end();
    });
    tuple_entry(out, [&] { write_settings(out, sample.settings); });
    out.tuple_end();
}

// ---- reading, by the protocol of the contract ----

template <class Element>
void read_list(IDeserializer& in, Element element)
{
    in.list_enter();
    for (bool first = true; !in.list_try_exit(); first = false) {
        if (!first)
            in.list_read_separator();
        element();
    }
}

template <class Entry>
void read_dict(IDeserializer& in, Entry entry)
{
    in.dict_enter();
    for (bool first = true; in.dict_entry_try_enter(first); first = false) {
        std::string const key = in.read_string();
        in.dict_entry_read_kv_separator();
        entry(key);
        in.dict_entry_exit();
    }
    in.dict_exit();
}

Record read_record(IDeserializer& in)
{
    Record record;
    in.tuple_enter();
    record.name = in.read_string();
    in.tuple_read_separator();
    record.count = in.read_uint32();
    in.tuple_read_separator();
    record.weight = in.read_double();
    in.tuple_exit();
    return record;
}

Settings read_settings(IDeserializer& in)
{
    Settings settings;
    read_dict(in, [&](std::string const& key) {
        in.variant_enter();
        if (key == "level")
            settings.level = in.read_int32();
        else if (key == "label")
            settings.label = in.read_string();
        else if (key == "tags")
            read_list(in, [&] { settings.tags.push_back(in.read_string()); });
        else
            ADD_FAILURE() << "unexpected key " << key;
        in.variant_exit();
    });
    return settings;
}

Sample read_sample(IDeserializer& in)
{
    Sample sample;
    in.tuple_enter();
    sample.flag = in.read_bool();
    in.tuple_read_separator();
    sample.byte = in.read_byte();
    in.tuple_read_separator();
    sample.int16 = in.read_int16();
    in.tuple_read_separator();
    sample.uint16 = in.read_uint16();
    in.tuple_read_separator();
    sample.int32 = in.read_int32();
    in.tuple_read_separator();
    sample.uint32 = in.read_uint32();
    in.tuple_read_separator();
    sample.int64 = in.read_int64();
    in.tuple_read_separator();
    sample.uint64 = in.read_uint64();
    in.tuple_read_separator();
    sample.real = in.read_double();
    in.tuple_read_separator();
    sample.text = in.read_string();
    in.tuple_read_separator();
    sample.path = in.read_path();
    in.tuple_read_separator();
    read_list(in, [&] { sample.records.push_back(read_record(in)); });
    in.tuple_read_separator();
    read_dict(in, [&](std::string const& name) {
        auto& members = sample.groups[name];
        read_dict(in, [&](std::string const& member) { members[member] = in.read_int32(); });
    });
    in.tuple_read_separator();
    read_list(in, [&] {
        auto& row = sample.matrix.emplace_back();
        read_list(in, [&] { row.push_back(in.read_int32()); });
    });
    in.tuple_read_separator();
    in.variant_enter();
    sample.boxed = read_record(in);
    in.variant_exit();
    in.tuple_read_separator();
    sample.settings = read_settings(in);
    in.tuple_exit();
    return sample;
}

// Doubles stay within six significant digits and strings within printable ASCII, which
// the JSON text carries exactly.
Sample make_sample()
{
    Sample sample;
    sample.flag = true;
    sample.byte = 255;
    sample.int16 = std::numeric_limits<short>::min();
    sample.uint16 = std::numeric_limits<unsigned short>::max();
    sample.int32 = std::numeric_limits<int>::min();
    sample.uint32 = std::numeric_limits<unsigned int>::max();
    sample.int64 = std::numeric_limits<long>::min();
    sample.uint64 = std::numeric_limits<unsigned long>::max();
    sample.real = -1234.5;
    sample.text = "quote \" backslash \\ tab \t newline \n and 'single'";
    sample.path = ObjectPath("/org/sample/lamp_1");
    sample.records = {{"first", 1, 0.25}, {"", 0, -3.5}, {"third", 4000000000U, 1e-05}};
    sample.groups = {{"empty", {}}, {"pair", {{"a", -1}, {"b", 2}}}};
    sample.matrix = {{1, 2, 3}, {}, {-4}};
    sample.boxed = {"boxed", 7, 2.5};
    sample.settings = {42, "Lamp", {"red", "", "blue"}};
    return sample;
}

template <class Codec>
class RoundTrip : public ::testing::Test {};

struct CodecName {
    template <class Codec>
    static std::string GetName(int /*index*/)
    {
        return Codec::name;
    }
};

using Codecs = ::testing::Types<tarvek::test::JsonTextCodec, tarvek::test::DocumentCodec, tarvek::test::SDBusCodec>;
TYPED_TEST_SUITE(RoundTrip, Codecs, CodecName);

} // namespace

TYPED_TEST(RoundTrip, ReadsBackEveryBasicTypeAndEveryContainerAsWritten)
{
    Sample const written = make_sample();
    typename TypeParam::Encoded encoded;
    write_sample(*TypeParam::writer(encoded), written);

    Sample const read = read_sample(*TypeParam::reader(encoded));

    EXPECT_EQ(read, written);
}

TYPED_TEST(RoundTrip, ReadsBackEmptyContainers)
{
    Sample written;
    written.path = ObjectPath("/"); // a bus message cannot carry the empty path
    typename TypeParam::Encoded encoded;
    write_sample(*TypeParam::writer(encoded), written);

    Sample const read = read_sample(*TypeParam::reader(encoded));

    EXPECT_EQ(read, written);
}
