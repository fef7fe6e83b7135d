// SPDX-License-Identifier: LGPL-2.1-or-later
// The storage headers an application includes, typed access among them, must leave
// RapidJSON, and with it the choice of RAPIDJSON_ASSERT, to the application.
#include <tarvek/provider/storage/documents.hpp>
#include <tarvek/provider/storage/rj_deserializer.hpp>
#include <tarvek/provider/storage/rj_serializer.hpp>
#include <tarvek/provider/storage/rj_value.hpp>
#include <tarvek/provider/storage/typed_value.hpp>

#include <gtest/gtest.h>

namespace {

#ifdef RAPIDJSON_RAPIDJSON_H_
constexpr bool rapidjson_included = true;
#else
constexpr bool rapidjson_included = false;
#endif

#ifdef RAPIDJSON_ASSERT
constexpr bool assertion_hook_defined = true;
#else
constexpr bool assertion_hook_defined = false;
#endif

} // namespace

TEST(StorageHeaders, DoNotIncludeRapidJson)
{
    EXPECT_FALSE(rapidjson_included);
}

TEST(StorageHeaders, DoNotDefineTheAssertionHook)
{
    EXPECT_FALSE(assertion_hook_defined);
}

TEST(StorageHeaders, AreEnoughToStoreAndReadATypedValue)
{
    tarvek::provider::storage::Property const property = tarvek::provider::storage::make_property("Level", 3U);
    EXPECT_EQ(tarvek::provider::storage::get_value<unsigned int>(property), 3U);
}
