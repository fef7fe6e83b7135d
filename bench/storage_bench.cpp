// SPDX-License-Identifier: LGPL-2.1-or-later
// Cost of saving and restoring an object through storage documents, next to RapidJSON
// doing the same work by hand, so that results read as ratios within one run.
//
// The object has three interfaces of 20 properties each (five each of int32, double,
// string and bool), all away from their defaults, so that nothing is stripped.
//   save: tarvek::Object::write_json (capture, strip, pretty-print) against building the
//   same document from plain C++ values with RapidJSON's DOM calls and pretty-printing it;
//   restore: tarvek::Object::read_json (parse, then one set_properties per interface)
//   against parsing the same text and reading every value into plain C++ values.
// Restoring alternates between two texts, so that every property but the flags (true in
// both, as false is their default) changes at each apply.
// The capture_only and read_only cases show how save and restore divide.
#include "provider/storage/rapidjson_config.hpp"

#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/registry.hpp>
#include <tarvek/provider/storage/documents.hpp>

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/istreamwrapper.h>
#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/prettywriter.h>

#include <array>
#include <cstdint>
#include <deque>
#include <sstream>
#include <string>

namespace storage = tarvek::provider::storage;

using storage::GenericDocument;
using storage::GenericValue;

namespace {

constexpr int per_type = 5;
constexpr int interface_count = 3;

std::string interface_name(int i)
{
    return "org.sample.Bench" + std::to_string(i);
}

std::string property_name(char const* type, int i)
{
    return type + std::to_string(i);
}

// The values of one interface, as an application would hold them without the library.
struct PlainValues {
    std::array<std::int32_t, per_type> ints{};
    std::array<double, per_type> reals{};
    std::array<std::string, per_type> texts;
    std::array<bool, per_type> flags{};
};

PlainValues make_values(int variant)
{
    PlainValues values;
    for (int i = 0; i < per_type; ++i) {
        values.ints[i] = 1000 * (variant + 1) + i;
        values.reals[i] = 0.125 * (variant + 1) + i;
        values.texts[i] = "value " + std::to_string(variant) + " of property " + std::to_string(i);
        values.flags[i] = true;
    }
    return values;
}

class BenchInterface : public tarvek::provider::Interface {
public:
    explicit BenchInterface(std::string name)
        : Interface(std::move(name))
    {
        for (int i = 0; i < per_type; ++i) {
            ints.emplace_back(*this, property_name("Int", i), 0);
            reals.emplace_back(*this, property_name("Real", i), 0.0);
            texts.emplace_back(*this, property_name("Text", i), "");
            flags.emplace_back(*this, property_name("Flag", i), false);
        }
    }

    void set(PlainValues const& v)
    {
        update([&](tarvek::provider::Values& values) {
            for (int i = 0; i < per_type; ++i) {
                values.set(ints[i], v.ints[i]);
                values.set(reals[i], v.reals[i]);
                values.set(texts[i], v.texts[i]);
                values.set(flags[i], v.flags[i]);
            }
        });
    }

    std::deque<Property<std::int32_t>> ints;
    std::deque<Property<double>> reals;
    std::deque<Property<std::string>> texts;
    std::deque<Property<bool>> flags;
};

struct LiveObject {
    explicit LiveObject(int variant)
    {
        for (int i = 0; i < interface_count; ++i)
            tarvek::provider::add_interface<BenchInterface>(object, interface_name(i))
                .set(make_values(variant + i));
        registry.add_object(object, tarvek::ObjectPath("/org/sample/bench"));
    }

    tarvek::API_Registry registry;
    tarvek::Object object;
};

std::string saved_text(int variant)
{
    LiveObject const live(variant);
    std::ostringstream out;
    live.object.write_json(out);
    return out.str();
}

// ---- save ----

void storage_capture_only(benchmark::State& state)
{
    LiveObject const live(0);
    for (auto _ : state) {
        storage::Object captured(live.object);
        benchmark::DoNotOptimize(captured);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(storage_capture_only);

void storage_save(benchmark::State& state)
{
    LiveObject const live(0);
    std::ostringstream out;
    for (auto _ : state) {
        out.str({});
        live.object.write_json(out);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(out.str().size()));
}
BENCHMARK(storage_save);

GenericValue text_value(std::string const& text, storage::MemoryPoolAllocator& allocator)
{
    return GenericValue(text.data(), static_cast<rapidjson::SizeType>(text.size()), allocator);
}

void rapidjson_save(benchmark::State& state)
{
    std::array<PlainValues, interface_count> sources;
    for (int i = 0; i < interface_count; ++i)
        sources[i] = make_values(i);
    std::ostringstream out;
    for (auto _ : state) {
        out.str({});
        GenericDocument document(rapidjson::kObjectType);
        auto& allocator = document.GetAllocator();
        GenericValue interfaces(rapidjson::kObjectType);
        for (int n = 0; n < interface_count; ++n) {
            PlainValues const& v = sources[n];
            GenericValue properties(rapidjson::kObjectType);
            for (int i = 0; i < per_type; ++i) {
                properties.AddMember(
                    text_value(property_name("Int", i), allocator), GenericValue(v.ints[i]), allocator);
                properties.AddMember(
                    text_value(property_name("Real", i), allocator), GenericValue(v.reals[i]), allocator);
                properties.AddMember(text_value(property_name("Text", i), allocator),
                    text_value(v.texts[i], allocator), allocator);
                properties.AddMember(
                    text_value(property_name("Flag", i), allocator), GenericValue(v.flags[i]), allocator);
            }
            GenericValue interface(rapidjson::kObjectType);
            interface.AddMember("properties", properties, allocator);
            interfaces.AddMember(text_value(interface_name(n), allocator), interface, allocator);
        }
        document.AddMember("interfaces", interfaces, allocator);
        document.AddMember("path", "/org/sample/bench", allocator);
        rapidjson::OStreamWrapper stream(out);
        rapidjson::PrettyWriter<rapidjson::OStreamWrapper> writer(stream);
        document.Accept(writer);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(out.str().size()));
}
BENCHMARK(rapidjson_save);

// ---- restore ----

void storage_read_only(benchmark::State& state)
{
    std::string const text = saved_text(0);
    for (auto _ : state) {
        std::istringstream in(text);
        storage::Object document;
        in >> document;
        benchmark::DoNotOptimize(document);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(storage_read_only);

void storage_restore(benchmark::State& state)
{
    std::array<std::string, 2> const texts{saved_text(1), saved_text(2)};
    LiveObject live(0);
    std::size_t turn = 0;
    for (auto _ : state) {
        std::istringstream in(texts[turn++ % 2]);
        live.object.read_json(in);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(texts[0].size()));
}
BENCHMARK(storage_restore);

void rapidjson_restore(benchmark::State& state)
{
    std::array<std::string, 2> const texts{saved_text(1), saved_text(2)};
    std::array<PlainValues, interface_count> targets;
    std::size_t turn = 0;
    for (auto _ : state) {
        std::istringstream in(texts[turn++ % 2]);
        rapidjson::IStreamWrapper stream(in);
        GenericDocument document;
        document.ParseStream(stream);
        GenericValue const& interfaces = document["interfaces"];
        for (int n = 0; n < interface_count; ++n) {
            GenericValue const& properties = interfaces[interface_name(n).c_str()]["properties"];
            PlainValues& v = targets[n];
            for (int i = 0; i < per_type; ++i) {
                v.ints[i] = properties[property_name("Int", i).c_str()].GetInt();
                v.reals[i] = properties[property_name("Real", i).c_str()].GetDouble();
                v.texts[i] = properties[property_name("Text", i).c_str()].GetString();
                v.flags[i] = properties[property_name("Flag", i).c_str()].GetBool();
            }
        }
        benchmark::DoNotOptimize(targets);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(texts[0].size()));
}
BENCHMARK(rapidjson_restore);

} // namespace

BENCHMARK_MAIN();
