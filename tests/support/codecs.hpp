// SPDX-License-Identifier: LGPL-2.1-or-later
// Serializer back ends as interchangeable codecs, so that one typed test can run the same
// value through each of them.
//
// A codec is a type with
//   static constexpr char const* name;        // for test output
//   struct Encoded;                           // default-constructible; holds what a sink made
//   static std::unique_ptr<tarvek::glue::ISerializer> writer(Encoded&);
//   static std::unique_ptr<tarvek::glue::IDeserializer> reader(Encoded&);
// reader() is called once, after the writer has been destroyed; it may finish the encoded
// form first (a bus message would be sealed there).
#pragma once

#include <tarvek/glue/serializer.hpp>
#include <tarvek/provider/storage/rj_deserializer.hpp>
#include <tarvek/provider/storage/rj_serializer.hpp>
#include <tarvek/provider/storage/rj_value.hpp>
#include <tarvek/serialization/json_deserializer.hpp>
#include <tarvek/serialization/json_serializer.hpp>

#include <memory>
#include <sstream>

namespace tarvek::test {

// JSON text on a stream.
struct JsonTextCodec {
    static constexpr char const* name = "JsonText";

    struct Encoded {
        std::stringstream text;
    };

    static std::unique_ptr<glue::ISerializer> writer(Encoded& encoded)
    {
        return std::make_unique<serialization::JSON_Serializer>(encoded.text);
    }
    static std::unique_ptr<glue::IDeserializer> reader(Encoded& encoded)
    {
        return std::make_unique<serialization::JSON_Deserializer>(encoded.text);
    }
};

// A value in a RapidJSON document, as Storage keeps it.
struct DocumentCodec {
    static constexpr char const* name = "Document";

    struct Encoded {
        provider::storage::detail::RJ_Value document = provider::storage::detail::RJ_Value::make_doc();
    };

    static std::unique_ptr<glue::ISerializer> writer(Encoded& encoded)
    {
        return std::make_unique<provider::storage::RJ_Serializer>(
            encoded.document.value(), encoded.document.allocator());
    }
    static std::unique_ptr<glue::IDeserializer> reader(Encoded& encoded)
    {
        return std::make_unique<provider::storage::RJ_Deserializer>(encoded.document.value());
    }
};

} // namespace tarvek::test
