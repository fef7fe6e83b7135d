// SPDX-License-Identifier: LGPL-2.1-or-later
#include "common/vrel.hpp"
#include "interposers.hpp"
#include "policy_file.hpp"

#include <tarvek/common/exceptions.hpp>

#include <gtest/gtest.h>

#include <string>

using tarvek::common::Vrel;

TEST(Vrel, AllowsWhatThePolicyAllowsAndRefusesTheRest)
{
    tarvek::test::PolicyFile policy("allow root com.omno.test.read\n");
    Vrel const vrel;
    EXPECT_TRUE(vrel.check("root", "com.omno.test.read"));
    EXPECT_FALSE(vrel.check("root", "com.omno.test.write.level"));
}

TEST(Vrel, LowerCasesTheActionButNotTheUser)
{
    tarvek::test::Faults scope;
    tarvek::test::PolicyFile policy("allow root org.sample.lamp.call.toggle\n");
    Vrel const vrel;
    EXPECT_TRUE(vrel.check("root", "Org.Sample.Lamp.call.Toggle"));
    EXPECT_EQ(tarvek::test::calls.last_action, "org.sample.lamp.call.toggle");
    EXPECT_FALSE(vrel.check("Root", "org.sample.lamp.call.toggle"));
    EXPECT_EQ(tarvek::test::calls.last_user, "Root");
}

TEST(Vrel, RaisesAuthorizationFailureWhenThePolicyCannotAnswer)
{
    tarvek::test::Faults scope;
    tarvek::test::PolicyFile policy("allow * *\n");
    Vrel const vrel;
    tarvek::test::faults.check = tarvek::test::ForcedCheck{false, 3, "policy unreadable"};
    try {
        vrel.check("root", "x.read");
        ADD_FAILURE() << "no exception";
    } catch (tarvek::authorization_failure const& e) {
        EXPECT_STREQ(e.what(), "Auth check failure: policy unreadable");
    }
}

TEST(Vrel, CountsATrueAnswerAsAllowedWhateverTheRecordHolds)
{
    tarvek::test::Faults scope;
    tarvek::test::PolicyFile policy("");
    Vrel const vrel;
    tarvek::test::faults.check = tarvek::test::ForcedCheck{true, 3, "ignored"};
    EXPECT_TRUE(vrel.check("nobody", "x.read"));
}

TEST(Vrel, RaisesInternalErrorWithTheLibraryTextWhenTheLibraryCannotStart)
{
    tarvek::test::PolicyFile policy("");
    std::string const missing = policy.directory + "/missing.conf";
    ::setenv("VREL2_POLICY", missing.c_str(), 1);
    try {
        Vrel const vrel;
        ADD_FAILURE() << "no exception";
    } catch (tarvek::internal_error const& e) {
        std::string const text = e.what();
        EXPECT_EQ(text.rfind("Could not init vrel library: ", 0), 0u) << text;
        EXPECT_NE(text.find(missing), std::string::npos) << text;
    }
}

TEST(Vrel, AMoveInitialisesOnceMoreAndBothInstancesRelease)
{
    tarvek::test::Faults scope;
    tarvek::test::PolicyFile policy("");
    {
        Vrel first;
        Vrel const second(std::move(first));
        EXPECT_EQ(tarvek::test::calls.vrel2_init, 2);
        EXPECT_EQ(tarvek::test::calls.vrel2_release, 0);
    }
    EXPECT_EQ(tarvek::test::calls.vrel2_release, 2);
}
