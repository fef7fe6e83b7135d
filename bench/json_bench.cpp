// SPDX-License-Identifier: LGPL-2.1-or-later
// Cost of the JSON text and document back ends, each next to RapidJSON doing the same
// work directly, so that results read as ratios within one run:
//   JSON text: JSON_Serializer / JSON_Deserializer against RapidJSON's Writer / Reader on
//   the same std::stringstream;
//   document: RJ_Serializer / RJ_Deserializer against building and walking the same
//   GenericDocument through RapidJSON's DOM calls.
// The value is a tuple of a list of 20 records (sud) and a dictionary a{sv} of four entries.
#include "provider/storage/rapidjson_config.hpp"

#include <tarvek/provider/storage/rj_deserializer.hpp>
#include <tarvek/provider/storage/rj_serializer.hpp>
#include <tarvek/serialization/json_deserializer.hpp>
#include <tarvek/serialization/json_serializer.hpp>

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/istreamwrapper.h>
#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/reader.h>
#include <rapidjson/writer.h>

#include <sstream>
#include <string>
#include <vector>

using tarvek::glue::IDeserializer;
using tarvek::glue::ISerializer;
using tarvek::provider::storage::GenericDocument;
using tarvek::provider::storage::GenericValue;

namespace {

struct Record {
    std::string name;
    unsigned int count = 0;
    double weight = 0;
};

struct Settings {
    int level = 0;
    std::string label;
    bool enabled = false;
    double ratio = 0;
};

struct Payload {
    std::vector<Record> records;
    Settings settings;
};

Payload make_payload()
{
    Payload payload;
    for (unsigned int i = 0; i < 20; ++i)
        payload.records.push_back({"record_" + std::to_string(i), i * 1000 + 7, i + 0.25});
    payload.settings = {42, "Living room lamp", true, 0.75};
    return payload;
}

Payload const payload = make_payload();

// ---- through the contract ----

void write_string(ISerializer& out, std::string const& text)
{
    out.write(text.c_str(), text.size(), true);
}

template <class Value>
void write_setting(ISerializer& out, char const* key, char const* signature, Value write_value)
{
    out.dict_entry_begin("sv");
    out.write(key, 0, true);
    out.dict_entry_kv_separator();
    out.variant_begin(signature);
    write_value();
    out.variant_end();
    out.dict_entry_end();
}

void write_payload(ISerializer& out, Payload const& value)
{
    out.tuple_begin(2, "a(sud)a{sv}");
    out.tuple_entry_begin();
    out.list_begin(value.records.size(), "(sud)");
    for (Record const& record : value.records) {
        out.list_entry_begin();
        out.tuple_begin(3, "sud");
        out.tuple_entry_begin();
        write_string(out, record.name);
        out.tuple_entry_end();
        out.tuple_entry_begin();
        out.write(record.count);
        out.tuple_entry_end();
        out.tuple_entry_begin();
        out.write(record.weight);
        out.tuple_entry_end();
        out.tuple_end();
        out.list_entry_end();
    }
    out.list_end();
    out.tuple_entry_end();
    out.tuple_entry_begin();
    out.dict_begin(4, "{sv}");
    write_setting(out, "level", "i", [&] { out.write(value.settings.level); });
    write_setting(out, "label", "s", [&] { write_string(out, value.settings.label); });
    write_setting(out, "enabled", "b", [&] { out.write(value.settings.enabled); });
    write_setting(out, "ratio", "d", [&] { out.write(value.settings.ratio); });
    out.dict_end();
    out.tuple_entry_end();
    out.tuple_end();
}

Payload read_payload(IDeserializer& in)
{
    Payload value;
    in.tuple_enter();
    in.list_enter();
    for (bool first = true; !in.list_try_exit(); first = false) {
        if (!first)
            in.list_read_separator();
        Record& record = value.records.emplace_back();
        in.tuple_enter();
        record.name = in.read_string();
        in.tuple_read_separator();
        record.count = in.read_uint32();
        in.tuple_read_separator();
        record.weight = in.read_double();
        in.tuple_exit();
    }
    in.tuple_read_separator();
    in.dict_enter();
    for (bool first = true; in.dict_entry_try_enter(first); first = false) {
        std::string const key = in.read_string();
        in.dict_entry_read_kv_separator();
        in.variant_enter();
        if (key == "level")
            value.settings.level = in.read_int32();
        else if (key == "label")
            value.settings.label = in.read_string();
        else if (key == "enabled")
            value.settings.enabled = in.read_bool();
        else
            value.settings.ratio = in.read_double();
        in.variant_exit();
        in.dict_entry_exit();
    }
    in.dict_exit();
    in.tuple_exit();
    return value;
}

// ---- RapidJSON directly ----

template <class Writer>
void write_payload_sax(Writer& writer, Payload const& value)
{
    writer.StartArray();
    writer.StartArray();
    for (Record const& record : value.records) {
        writer.StartArray();
        writer.String(record.name.c_str(), static_cast<rapidjson::SizeType>(record.name.size()));
        writer.Uint(record.count);
        writer.Double(record.weight);
        writer.EndArray();
    }
    writer.EndArray();
    writer.StartObject();
    writer.Key("level");
    writer.Int(value.settings.level);
    writer.Key("label");
    writer.String(value.settings.label.c_str(), static_cast<rapidjson::SizeType>(value.settings.label.size()));
    writer.Key("enabled");
    writer.Bool(value.settings.enabled);
    writer.Key("ratio");
    writer.Double(value.settings.ratio);
    writer.EndObject();
    writer.EndArray();
}

// Fills a Payload from the events of rapidjson::Reader; depth 3 is inside a record.
class PayloadHandler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, PayloadHandler> {
public:
    explicit PayloadHandler(Payload& value) : value_(value) {}

    bool StartArray()
    {
        ++depth_;
        return true;
    }
    bool EndArray(rapidjson::SizeType /*count*/)
    {
        if (depth_-- == 3)
            value_.records.push_back(std::move(record_));
        return true;
    }
    bool StartObject()
    {
        ++depth_;
        return true;
    }
    bool EndObject(rapidjson::SizeType /*count*/)
    {
        --depth_;
        return true;
    }
    bool Key(char const* text, rapidjson::SizeType length, bool /*copy*/)
    {
        key_.assign(text, length);
        return true;
    }
    bool String(char const* text, rapidjson::SizeType length, bool /*copy*/)
    {
        (depth_ == 3 ? record_.name : value_.settings.label).assign(text, length);
        return true;
    }
    bool Bool(bool b)
    {
        value_.settings.enabled = b;
        return true;
    }
    bool Int(int i)
    {
        value_.settings.level = i;
        return true;
    }
    bool Uint(unsigned u)
    {
        if (depth_ == 3)
            record_.count = u;
        else
            value_.settings.level = static_cast<int>(u);
        return true;
    }
    bool Double(double d)
    {
        (depth_ == 3 ? record_.weight : value_.settings.ratio) = d;
        return true;
    }

private:
    Payload& value_;
    Record record_;
    std::string key_;
    int depth_ = 0;
};

GenericValue string_value(std::string const& text, GenericDocument& document)
{
    return GenericValue(text.c_str(), static_cast<rapidjson::SizeType>(text.size()), document.GetAllocator());
}

void build_payload_dom(GenericDocument& document, Payload const& value)
{
    auto& allocator = document.GetAllocator();
    document.SetArray();
    GenericValue records(rapidjson::kArrayType);
    for (Record const& record : value.records) {
        GenericValue entry(rapidjson::kArrayType);
        entry.PushBack(string_value(record.name, document), allocator);
        entry.PushBack(GenericValue(record.count), allocator);
        entry.PushBack(GenericValue(record.weight), allocator);
        records.PushBack(entry, allocator);
    }
    document.PushBack(records, allocator);
    GenericValue settings(rapidjson::kObjectType);
    settings.AddMember(string_value("level", document), GenericValue(value.settings.level), allocator);
    settings.AddMember(string_value("label", document), string_value(value.settings.label, document), allocator);
    settings.AddMember(string_value("enabled", document), GenericValue(value.settings.enabled), allocator);
    settings.AddMember(string_value("ratio", document), GenericValue(value.settings.ratio), allocator);
    document.PushBack(settings, allocator);
}

Payload read_payload_dom(GenericValue const& root)
{
    Payload value;
    for (GenericValue const& entry : root[0].GetArray())
        value.records.push_back({entry[0].GetString(), entry[1].GetUint(), entry[2].GetDouble()});
    for (auto const& member : root[1].GetObject()) {
        std::string const key = member.name.GetString();
        if (key == "level")
            value.settings.level = member.value.GetInt();
        else if (key == "label")
            value.settings.label = member.value.GetString();
        else if (key == "enabled")
            value.settings.enabled = member.value.GetBool();
        else
            value.settings.ratio = member.value.GetDouble();
    }
    return value;
}

std::string text_by_json_serializer()
{
    std::ostringstream out;
    tarvek::serialization::JSON_Serializer serializer(out);
    write_payload(serializer, payload);
    return out.str();
}

std::string text_by_rapidjson_writer()
{
    std::ostringstream out;
    rapidjson::OStreamWrapper stream(out);
    rapidjson::Writer<rapidjson::OStreamWrapper> writer(stream);
    write_payload_sax(writer, payload);
    return out.str();
}

// ---- benchmarks ----

void JsonText_Write_JSON_Serializer(benchmark::State& state)
{
    std::ostringstream out;
    for (auto _ : state) {
        out.str({});
        tarvek::serialization::JSON_Serializer serializer(out);
        write_payload(serializer, payload);
        benchmark::DoNotOptimize(out.tellp());
    }
}
BENCHMARK(JsonText_Write_JSON_Serializer);

void JsonText_Write_RapidJSON_Writer(benchmark::State& state)
{
    std::ostringstream out;
    for (auto _ : state) {
        out.str({});
        rapidjson::OStreamWrapper stream(out);
        rapidjson::Writer<rapidjson::OStreamWrapper> writer(stream);
        write_payload_sax(writer, payload);
        benchmark::DoNotOptimize(out.tellp());
    }
}
BENCHMARK(JsonText_Write_RapidJSON_Writer);

void JsonText_Read_JSON_Deserializer(benchmark::State& state)
{
    std::string const text = text_by_json_serializer();
    std::istringstream in;
    for (auto _ : state) {
        in.str(text);
        in.clear();
        tarvek::serialization::JSON_Deserializer deserializer(in);
        Payload const value = read_payload(deserializer);
        benchmark::DoNotOptimize(value.records.data());
    }
}
BENCHMARK(JsonText_Read_JSON_Deserializer);

void JsonText_Read_RapidJSON_Reader(benchmark::State& state)
{
    std::string const text = text_by_rapidjson_writer();
    std::istringstream in;
    for (auto _ : state) {
        in.str(text);
        in.clear();
        rapidjson::IStreamWrapper stream(in);
        Payload value;
        PayloadHandler handler(value);
        rapidjson::Reader reader;
        reader.Parse(stream, handler);
        benchmark::DoNotOptimize(value.records.data());
    }
}
BENCHMARK(JsonText_Read_RapidJSON_Reader);

void Document_Write_RJ_Serializer(benchmark::State& state)
{
    for (auto _ : state) {
        GenericDocument document;
        tarvek::provider::storage::RJ_Serializer serializer(document, document.GetAllocator());
        write_payload(serializer, payload);
        benchmark::DoNotOptimize(document.Size());
    }
}
BENCHMARK(Document_Write_RJ_Serializer);

void Document_Write_RapidJSON_DOM(benchmark::State& state)
{
    for (auto _ : state) {
        GenericDocument document;
        build_payload_dom(document, payload);
        benchmark::DoNotOptimize(document.Size());
    }
}
BENCHMARK(Document_Write_RapidJSON_DOM);

void Document_Read_RJ_Deserializer(benchmark::State& state)
{
    GenericDocument document;
    build_payload_dom(document, payload);
    for (auto _ : state) {
        tarvek::provider::storage::RJ_Deserializer deserializer(document);
        Payload const value = read_payload(deserializer);
        benchmark::DoNotOptimize(value.records.data());
    }
}
BENCHMARK(Document_Read_RJ_Deserializer);

void Document_Read_RapidJSON_DOM(benchmark::State& state)
{
    GenericDocument document;
    build_payload_dom(document, payload);
    for (auto _ : state) {
        Payload const value = read_payload_dom(document);
        benchmark::DoNotOptimize(value.records.data());
    }
}
BENCHMARK(Document_Read_RapidJSON_DOM);

} // namespace

BENCHMARK_MAIN();
