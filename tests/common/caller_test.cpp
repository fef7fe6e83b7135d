// SPDX-License-Identifier: LGPL-2.1-or-later
// The current caller of a thread: scopes nest and end, and each thread has its own.
#include <tarvek/common/caller.hpp>

#include <gtest/gtest.h>

#include <thread>

TEST(CallerScope, NamesTheCallerForItsDurationOnly)
{
    tarvek::Caller const caller{":1.1", 0, 1, "root"};
    EXPECT_EQ(tarvek::current_caller(), nullptr);
    {
        tarvek::CallerScope const scope(&caller);
        EXPECT_EQ(tarvek::current_caller(), &caller);
    }
    EXPECT_EQ(tarvek::current_caller(), nullptr);
}

TEST(CallerScope, NestedScopesRestoreTheOuterCaller)
{
    tarvek::Caller const outer{":1.1", 0, 1, "root"};
    tarvek::CallerScope const first(&outer);
    {
        tarvek::CallerScope const none(nullptr);
        EXPECT_EQ(tarvek::current_caller(), nullptr);
    }
    EXPECT_EQ(tarvek::current_caller(), &outer);
}

TEST(CallerScope, AnotherThreadDoesNotSeeTheCaller)
{
    tarvek::Caller const caller{":1.1", 0, 1, "root"};
    tarvek::CallerScope const scope(&caller);
    tarvek::Caller const* seen = &caller;
    std::thread([&] { seen = tarvek::current_caller(); }).join();
    EXPECT_EQ(seen, nullptr);
}
