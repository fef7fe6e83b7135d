// SPDX-License-Identifier: LGPL-2.1-or-later
// The header as C code sees it: same record layout, same calls.
#include "vrel2_fixture.hpp"

#include <cstddef>

extern "C" {
std::size_t vrel2_c_record_size(void);
std::size_t vrel2_c_text_offset(void);
int vrel2_c_check_code(char const* user, char const* action);
}

namespace vrel2_test {
namespace {

using Vrel2FromC = Vrel2Test;

TEST_F(Vrel2FromC, RecordLayoutIsTheSameInCAndCxx)
{
    EXPECT_EQ(vrel2_c_record_size(), sizeof(vrel2_error));
    EXPECT_EQ(vrel2_c_record_size(), 260u);
    EXPECT_EQ(vrel2_c_text_offset(), offsetof(vrel2_error, text));
}

TEST_F(Vrel2FromC, CCallersGetTheSameAnswers)
{
    EXPECT_EQ(vrel2_c_check_code("alice", "org.sample.lamp.read"), VREL2_NOT_INITIALISED);
    TempPolicy policy("allow alice org.sample.lamp.read\n");
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;
    EXPECT_EQ(vrel2_c_check_code("alice", "org.sample.lamp.read"), VREL2_OK);
    EXPECT_EQ(vrel2_c_check_code("bobby", "org.sample.lamp.read"), VREL2_NOT_PERMITTED);
}

} // namespace
} // namespace vrel2_test
