// SPDX-License-Identifier: LGPL-2.1-or-later
// The command line of tarvek-lamps: what it can't use ends the program with status 2 and
// one line on stderr, before it touches any bus.
#include "examples/lamps_service.hpp"

#include <algorithm>
#include <string>
#include <vector>

namespace tarvek::test::lamps {
namespace {

void expect_usage_error(std::vector<std::string> const& arguments)
{
    SCOPED_TRACE(testing::PrintToString(arguments));
    auto const [status, errors] = run_to_exit(arguments);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
    EXPECT_TRUE(!errors.empty() && errors.back() == '\n') << errors;
    EXPECT_GT(errors.size(), 1U);
}

TEST(LampsCommandLineTest, AnUnknownOptionEndsWithStatus2AndOneLine)
{
    expect_usage_error({"--colour", "red"});
    expect_usage_error({"--lamps", "2", "--verbose", "yes"});
    expect_usage_error({"stray"});
}

TEST(LampsCommandLineTest, ABadLampCountEndsWithStatus2AndOneLine)
{
    for (char const* count : {"many", "-1", "3x", "", " 2", "99999999999"})
        expect_usage_error({"--lamps", count});
}

TEST(LampsCommandLineTest, AMissingValueEndsWithStatus2AndOneLine)
{
    expect_usage_error({"--lamps"});
    expect_usage_error({"--state-dir"});
    expect_usage_error({"--lamps", "2", "--bus-address"});
}

} // namespace
} // namespace tarvek::test::lamps
