// SPDX-License-Identifier: LGPL-2.1-or-later
// The calls themselves: counted init and release, bad arguments, the records they fill,
// and the built-in policy.
#include "vrel2_fixture.hpp"

#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>

namespace vrel2_test {
namespace {

using Vrel2Calls = Vrel2Test;

constexpr char const* read_action = "org.sample.lamp.read";
constexpr char const* whole_policy = "allow alice org.sample.lamp.read\n";

TEST_F(Vrel2Calls, CheckBeforeInitFailsAsNotInitialised)
{
    vrel2_error error{};
    EXPECT_FALSE(vrel2_check_username("root", read_action, &error));
    EXPECT_EQ(error.code, VREL2_NOT_INITIALISED);
    EXPECT_STREQ(error.text, "vrel2 is not initialised: vrel2_init was not called or was released");
}

TEST_F(Vrel2Calls, EachInitNeedsItsOwnRelease)
{
    TempPolicy policy(whole_policy);
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;
    ASSERT_TRUE(init(&error)) << error.text;

    release();
    EXPECT_TRUE(allows("alice", read_action));

    release();
    EXPECT_FALSE(vrel2_check_username("alice", read_action, &error));
    EXPECT_EQ(error.code, VREL2_NOT_INITIALISED);
}

TEST_F(Vrel2Calls, ReleaseWithoutInitIsIgnored)
{
    vrel2_release();
    TempPolicy policy(whole_policy);
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;
    EXPECT_TRUE(allows("alice", read_action)); // the stray release did not eat this init
}

TEST_F(Vrel2Calls, FailedInitTakesNoReference)
{
    TempPolicy policy("bad\n");
    vrel2_error error{};
    ASSERT_FALSE(init(&error));
    policy.write(whole_policy);
    ASSERT_TRUE(init(&error)) << error.text;
    release();
    EXPECT_FALSE(vrel2_check_username("alice", read_action, &error));
    EXPECT_EQ(error.code, VREL2_NOT_INITIALISED);
}

TEST_F(Vrel2Calls, PolicyIsLoadedAgainAfterTheLastRelease)
{
    TempPolicy policy(whole_policy);
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;
    release();
    TempPolicy other("allow bobby org.sample.lamp.read\n");
    ASSERT_TRUE(init(&error)) << error.text;
    EXPECT_TRUE(allows("bobby", read_action));
    EXPECT_FALSE(allows("alice", read_action));
}

TEST_F(Vrel2Calls, SuccessLeavesACleanRecord)
{
    TempPolicy policy(whole_policy);
    vrel2_error error;
    std::memset(&error, 'x', sizeof error);
    ASSERT_TRUE(init(&error));
    EXPECT_EQ(error.code, VREL2_OK);
    EXPECT_STREQ(error.text, "");

    std::memset(&error, 'x', sizeof error);
    ASSERT_TRUE(vrel2_check_username("alice", read_action, &error));
    EXPECT_EQ(error.code, VREL2_OK);
    EXPECT_STREQ(error.text, "");
}

TEST_F(Vrel2Calls, NullRecordIsAccepted)
{
    TempPolicy policy(whole_policy);
    ASSERT_TRUE(init(nullptr));
    EXPECT_TRUE(vrel2_check_username("alice", read_action, nullptr));
    EXPECT_FALSE(vrel2_check_username("bobby", read_action, nullptr));
    EXPECT_FALSE(vrel2_check_username(nullptr, nullptr, nullptr));
}

TEST_F(Vrel2Calls, NullUserOrActionFailsWithAText)
{
    TempPolicy policy(whole_policy);
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;

    EXPECT_FALSE(vrel2_check_username(nullptr, read_action, &error));
    EXPECT_EQ(error.code, VREL2_FAILED);
    EXPECT_STREQ(error.text, "vrel2_check_username: user is null");

    EXPECT_FALSE(vrel2_check_username("alice", nullptr, &error));
    EXPECT_EQ(error.code, VREL2_FAILED);
    EXPECT_STREQ(error.text, "vrel2_check_username: action is null");
}

TEST_F(Vrel2Calls, EmptyUserOrActionFailsWithAText)
{
    TempPolicy policy("allow * *\n");
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;

    EXPECT_FALSE(vrel2_check_username("", read_action, &error));
    EXPECT_EQ(error.code, VREL2_FAILED);
    EXPECT_STREQ(error.text, "vrel2_check_username: user is empty");

    EXPECT_FALSE(vrel2_check_username("alice", "", &error));
    EXPECT_EQ(error.code, VREL2_FAILED);
    EXPECT_STREQ(error.text, "vrel2_check_username: action is empty");
}

// A missing file under a path longer than the record: directories of at most 100 bytes
// each, so that the path itself stays valid.
std::string long_missing_path(std::string const& dir, std::string const& first_piece, std::string const& piece)
{
    return dir + "/" + first_piece + "/" + piece + "/" + piece + "/" + piece + "/missing.conf";
}

TEST_F(Vrel2Calls, LongTextIsCutToFitTheRecord)
{
    TempPolicy policy;
    std::string const path = long_missing_path(policy.dir(), "a", std::string(100, 'b'));
    ::setenv("VREL2_POLICY", path.c_str(), 1);
    vrel2_error error{};
    ASSERT_FALSE(init(&error));
    EXPECT_EQ(error.code, VREL2_POLICY_ERROR);
    ASSERT_EQ(std::strlen(error.text), 255u);
    EXPECT_EQ(std::string(error.text), path.substr(0, 255));
}

TEST_F(Vrel2Calls, TextIsCutBetweenUtf8Characters)
{
    TempPolicy policy;
    std::string const e_acute = "\xc3\xa9";
    std::string piece;
    for (int i = 0; i < 50; ++i)
        piece += e_acute;
    // Choose the first piece so that byte 255 is the second half of an é.
    std::size_t const first_e = policy.dir().size() + 1;
    std::string const first_piece = (255 - first_e) % 2 == 1 ? piece : "a" + piece;
    std::string const path = long_missing_path(policy.dir(), first_piece, piece);
    ::setenv("VREL2_POLICY", path.c_str(), 1);
    vrel2_error error{};
    ASSERT_FALSE(init(&error));
    EXPECT_EQ(std::strlen(error.text), 254u);
    EXPECT_EQ(std::string(error.text), path.substr(0, 254));
}

TEST_F(Vrel2Calls, LongSyntaxErrorIsCutToFitTheRecord)
{
    TempPolicy policy("allow alice org.a\n" + std::string(300, 'v') + " alice org.a\n");
    vrel2_error error{};
    ASSERT_FALSE(init(&error));
    EXPECT_EQ(error.code, VREL2_POLICY_ERROR);
    std::string const full = policy.path() + ":2: unknown verb '" + std::string(300, 'v') + "'";
    ASSERT_EQ(std::strlen(error.text), 255u);
    EXPECT_EQ(std::string(error.text), full.substr(0, 255));
}

// The built-in policy applies only when VREL2_POLICY is unset and the default file is
// absent; the test cannot remove /etc/vrel2/policy.conf, so it runs only where it is
// absent, in a child process so that the unset variable stays there.
class Vrel2BuiltIn : public Vrel2Test {
protected:
    void SetUp() override
    {
        if (std::filesystem::exists("/etc/vrel2/policy.conf"))
            GTEST_SKIP() << "/etc/vrel2/policy.conf exists, so the built-in policy does not apply";
    }

    // Runs in the child: exits 0 if `user` gets `code` for an action under the built-in
    // policy, else prints what happened and exits 1.
    static void expect_in_child(char const* value, char const* user, int code)
    {
        if (value)
            ::setenv("VREL2_POLICY", value, 1);
        else
            ::unsetenv("VREL2_POLICY");
        vrel2_error error{};
        if (!vrel2_init(&error)) {
            std::cerr << "init failed: " << error.text;
            std::exit(1);
        }
        vrel2_check_username(user, "org.sample.lamp.write.level", &error);
        vrel2_release();
        if (error.code != code) {
            std::cerr << "got code " << error.code << ": " << error.text;
            std::exit(1);
        }
        std::exit(0);
    }
};

TEST_F(Vrel2BuiltIn, RootMayDoAnything)
{
    EXPECT_EXIT(expect_in_child(nullptr, "root", VREL2_OK), testing::ExitedWithCode(0), "");
}

TEST_F(Vrel2BuiltIn, EveryoneElseIsRefused)
{
    EXPECT_EXIT(expect_in_child(nullptr, "alice", VREL2_NOT_PERMITTED), testing::ExitedWithCode(0), "");
}

TEST_F(Vrel2BuiltIn, EmptyVariableCountsAsUnset)
{
    EXPECT_EXIT(expect_in_child("", "root", VREL2_OK), testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace vrel2_test
