// SPDX-License-Identifier: LGPL-2.1-or-later
// The policy file as a file: which one is read, what happens when it cannot be, and how
// changes to it reach the checks.
#include "vrel2_fixture.hpp"

#include <filesystem>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace vrel2_test {
namespace {

using Vrel2File = Vrel2Test;

constexpr char const* read_action = "org.sample.lamp.read";

TEST_F(Vrel2File, MissingNamedFileFailsInitNamingTheFile)
{
    TempPolicy policy;
    std::string const missing = policy.dir() + "/absent.conf";
    ::setenv("VREL2_POLICY", missing.c_str(), 1);
    vrel2_error error{};
    EXPECT_FALSE(init(&error));
    EXPECT_EQ(error.code, VREL2_POLICY_ERROR);
    EXPECT_EQ(std::string(error.text), missing + ": cannot open: No such file or directory");
}

TEST_F(Vrel2File, UnreadableFileFailsInit)
{
    if (::geteuid() == 0)
        GTEST_SKIP() << "root reads files whatever their mode";
    TempPolicy policy("allow * *\n");
    ASSERT_EQ(::chmod(policy.path().c_str(), 0), 0);
    vrel2_error error{};
    EXPECT_FALSE(init(&error));
    EXPECT_EQ(error.code, VREL2_POLICY_ERROR);
    EXPECT_EQ(std::string(error.text), policy.path() + ": cannot open: Permission denied");
}

TEST_F(Vrel2File, DirectoryAsPolicyFileFailsInit)
{
    TempPolicy policy;
    ::setenv("VREL2_POLICY", policy.dir().c_str(), 1);
    vrel2_error error{};
    EXPECT_FALSE(init(&error));
    EXPECT_EQ(error.code, VREL2_POLICY_ERROR);
    EXPECT_EQ(std::string(error.text), policy.dir() + ": not a regular file");
}

TEST_F(Vrel2File, RewrittenFileIsReloadedByTheNextCheck)
{
    TempPolicy policy("allow alice org.sample.lamp.read\n");
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;
    ASSERT_TRUE(allows("alice", read_action));
    policy.write("deny alice org.sample.lamp.read\n");
    EXPECT_FALSE(allows("alice", read_action));
}

TEST_F(Vrel2File, SameSizeRewriteIsNoticedByItsTimes)
{
    TempPolicy policy("allow alice org.sample.lamp.read\n");
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;
    ASSERT_TRUE(allows("alice", read_action));
    policy.write("allow bobby org.sample.lamp.read\n");
    policy.push_mtime_back();
    EXPECT_FALSE(allows("alice", read_action));
    EXPECT_TRUE(allows("bobby", read_action));
}

TEST_F(Vrel2File, FileRenamedOverThePolicyIsNoticedByItsIdentity)
{
    TempPolicy policy("allow alice org.sample.lamp.read\n");
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;
    ASSERT_TRUE(allows("alice", read_action));
    policy.replace("allow bobby org.sample.lamp.read\n");
    EXPECT_FALSE(allows("alice", read_action));
    EXPECT_TRUE(allows("bobby", read_action));
}

TEST_F(Vrel2File, BrokenReloadFailsChecksUntilTheFileIsFixed)
{
    TempPolicy policy("allow alice org.sample.lamp.read\n");
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;
    ASSERT_TRUE(allows("alice", read_action));

    policy.write("allow alice org.sample.lamp.read\nallow alice\n");
    std::string const expected = policy.path() + ":2: expected 3 fields (allow|deny USER PATTERN), found 2";
    for (int i = 0; i < 2; ++i) { // the failure stays, not only on the first check after the change
        error = {};
        EXPECT_FALSE(vrel2_check_username("alice", read_action, &error));
        EXPECT_EQ(error.code, VREL2_POLICY_ERROR);
        EXPECT_EQ(std::string(error.text), expected);
    }

    policy.write("allow alice org.sample.lamp.*\n");
    EXPECT_TRUE(allows("alice", read_action));
}

TEST_F(Vrel2File, DeletedFileFailsChecksUntilItIsBack)
{
    TempPolicy policy("allow alice org.sample.lamp.read\n");
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;
    ASSERT_TRUE(std::filesystem::remove(policy.path()));

    EXPECT_FALSE(vrel2_check_username("alice", read_action, &error));
    EXPECT_EQ(error.code, VREL2_POLICY_ERROR);
    EXPECT_EQ(std::string(error.text), policy.path() + ": cannot open: No such file or directory");

    policy.write("allow alice org.sample.lamp.read\n");
    EXPECT_TRUE(allows("alice", read_action));
}

TEST_F(Vrel2File, InitFailsWhileTheLoadedPolicyIsBroken)
{
    TempPolicy policy("allow alice org.sample.lamp.read\n");
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;
    policy.write("grant alice org.sample.lamp.read\n");
    EXPECT_FALSE(init(&error));
    EXPECT_EQ(error.code, VREL2_POLICY_ERROR);
    EXPECT_EQ(std::string(error.text), policy.path() + ":1: unknown verb 'grant'");
}

TEST_F(Vrel2File, LaterInitsKeepTheFileOfTheFirst)
{
    TempPolicy first("allow alice org.sample.lamp.read\n");
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;
    TempPolicy second("allow bobby org.sample.lamp.read\n");
    ASSERT_TRUE(init(&error)) << error.text;
    EXPECT_TRUE(allows("alice", read_action));
    EXPECT_FALSE(allows("bobby", read_action));
}

} // namespace
} // namespace vrel2_test
