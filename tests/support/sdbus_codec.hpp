// SPDX-License-Identifier: LGPL-2.1-or-later
// The sd-bus back end as a codec of support/codecs.hpp: a value is written into a method
// call on an offline connection and read back once the call is sealed. Needs no daemon.
#pragma once

#include "support/private_bus.hpp"

#include <tarvek/serialization/sdbus_deserializer.hpp>
#include <tarvek/serialization/sdbus_serializer.hpp>
#include <tarvek/server/dbus/sdbus_message.hpp>

#include <memory>

namespace tarvek::test {

struct SDBusCodec {
    static constexpr char const* name = "SDBus";

    struct Encoded {
        OfflineConnection connection;
        MessagePtr message = new_call(connection.get());
        server::dbus::SDBusOutboundMessage outbound{message.get()};
    };

    static std::unique_ptr<glue::ISerializer> writer(Encoded& encoded)
    {
        return std::make_unique<serialization::SDBusSerializer>(encoded.outbound);
    }
    static std::unique_ptr<glue::IDeserializer> reader(Encoded& encoded)
    {
        seal_for_reading(encoded.message.get());
        return std::make_unique<serialization::SDBusDeserializer>(encoded.message.get());
    }
};

} // namespace tarvek::test
