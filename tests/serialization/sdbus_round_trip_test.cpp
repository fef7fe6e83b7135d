// SPDX-License-Identifier: LGPL-2.1-or-later
// The sd-bus codec on its own: what its sink writes, its source reads back, and the message
// between them carries the signature that the value announced.
#include "support/sdbus_codec.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using tarvek::test::SDBusCodec;

TEST(SDBusCodec, ReadsBackADictionaryOfVariantsAsWritten)
{
    SDBusCodec::Encoded encoded;
    {
        auto out = SDBusCodec::writer(encoded);
        out->dict_begin(2, "{sv}");
        for (int const value : {1, 2}) {
            out->dict_entry_begin("sv");
            std::string const key = "k" + std::to_string(value);
            out->write(key.c_str(), key.size(), true);
            out->dict_entry_kv_separator();
            out->variant_begin("ai");
            out->list_begin(1, "i");
            out->list_entry_begin();
            out->write(value);
            out->list_entry_end();
            out->list_end();
            out->variant_end();
            out->dict_entry_end();
        }
        out->dict_end();
    }
    auto in = SDBusCodec::reader(encoded);
    EXPECT_STREQ(sd_bus_message_get_signature(encoded.message.get(), 1), "a{sv}");
    std::vector<std::pair<std::string, int>> read;
    in->dict_enter();
    for (bool first = true; in->dict_entry_try_enter(first); first = false) {
        std::string key = in->read_string();
        in->dict_entry_read_kv_separator();
        in->variant_enter();
        in->list_enter();
        while (!in->list_try_exit())
            read.emplace_back(key, in->read_int32());
        in->variant_exit();
        in->dict_entry_exit();
    }
    in->dict_exit();
    EXPECT_EQ(read, (std::vector<std::pair<std::string, int>>{{"k1", 1}, {"k2", 2}}));
}
