// SPDX-License-Identifier: LGPL-2.1-or-later
// The umbrella header compiles on its own and brings in the whole public API.
#include <tarvek/tarvek.hpp>

#include <gtest/gtest.h>

TEST(UmbrellaHeader, BringsInThePublicApi)
{
    tarvek::ObjectPath const path("/org/sample");
    tarvek::common::BitSet bits(3);
    bits.set(1);
    EXPECT_TRUE(bits.test(1));
    EXPECT_EQ(path.as_filename(".json"), "org:sample.json");
    EXPECT_STREQ(tarvek::provider::signature_of<std::vector<std::string>>, "as");
}
