// SPDX-License-Identifier: LGPL-2.1-or-later
// Typed values in storage properties, with the same mapping of C++ types as typed
// interfaces (value_codec.hpp), so that an application reads and writes stored values
// without RapidJSON:
//
//     storage::Property level = storage::make_property("Level", std::uint32_t{3});
//     std::uint32_t const n = storage::get_value<std::uint32_t>(level);
//
// A stored value carries no type: the reader names it, as a live property does when a
// document is applied. A value of another kind is read as RJ_Deserializer reads it: a line
// "RAPIDJSON_ASSERT(<expression>)" on std::cerr and a meaningless result, and only a
// structural mismatch raises (tarvek::deserialize_error).
//
// A null value stands for the property's default, which only the live property knows.
// get_value therefore raises for it, and try_get_value, for callers that expect defaults,
// gives nothing. Same threading and lifetime rules as the documents.
#pragma once

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>
#include <tarvek/provider/storage/documents.hpp>
#include <tarvek/provider/storage/rj_deserializer.hpp>
#include <tarvek/provider/storage/rj_serializer.hpp>
#include <tarvek/provider/value_codec.hpp>

#include <boost/throw_exception.hpp>

#include <optional>
#include <string>
#include <utility>

namespace tarvek::provider::storage {

// Replaces the stored value, also a null one, by `value`.
template <BusValue T>
void set_value(Property& property, T const& value)
{
    RJ_Serializer sink(property.json_value(), property.allocator());
    write_value(sink, value);
}

// A stand-alone property holding `value`, ready for Interface::add.
template <BusValue T>
Property make_property(std::string name, T const& value)
{
    Property property(std::move(name));
    set_value(property, value);
    return property;
}

// Nothing for a null value.
template <BusValue T>
std::optional<T> try_get_value(ConstProperty const& property)
{
    if (property.is_null())
        return std::nullopt;
    RJ_Deserializer source(property.json_value());
    return read_value<T>(source);
}

// Raises tarvek::invalid_argument "Property is at its default: " and the name for a null
// value.
template <BusValue T>
T get_value(ConstProperty const& property)
{
    if (auto value = try_get_value<T>(property))
        return *std::move(value);
    boost::throw_exception(invalid_argument(str::join("Property is at its default: ", property.name())));
}

} // namespace tarvek::provider::storage
