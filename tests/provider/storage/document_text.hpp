// SPDX-License-Identifier: LGPL-2.1-or-later
// Test helpers: JSON text in and out of the documents that Storage works on, with the
// library's RapidJSON configuration.
#pragma once

#include "provider/storage/rapidjson_config.hpp"

#include <tarvek/provider/storage/rj_value.hpp>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>

namespace storage_test {

using tarvek::provider::storage::GenericDocument;
using tarvek::provider::storage::GenericValue;
using tarvek::provider::storage::detail::RJ_Value;

// A shared document holding `text`, which must be valid JSON.
inline RJ_Value parse(std::string const& text)
{
    GenericDocument document;
    document.Parse(text.c_str(), text.size());
    return RJ_Value::from_doc(std::move(document));
}

// Compact JSON of `value`, members in document order.
inline std::string text_of(GenericValue const& value)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
}

} // namespace storage_test
