// SPDX-License-Identifier: LGPL-2.1-or-later
// The document headers, typed access included, leave RapidJSON and the choice of
// RAPIDJSON_ASSERT to the application, as the other storage headers do.
#include <tarvek/provider/storage/documents.hpp>
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

TEST(DocumentHeaders, DoNotIncludeRapidJson)
{
    EXPECT_FALSE(rapidjson_included);
}

TEST(DocumentHeaders, DoNotDefineTheAssertionHook)
{
    EXPECT_FALSE(assertion_hook_defined);
}

TEST(DocumentHeaders, AreEnoughToStoreAndReadATypedValue)
{
    tarvek::provider::storage::Property const property
        = tarvek::provider::storage::make_property("Level", 3U);
    EXPECT_EQ(tarvek::provider::storage::get_value<unsigned int>(property), 3U);
}
