// SPDX-License-Identifier: LGPL-2.1-or-later
// Clients of another user: the bus itself says which uid a client in run_as has.
#include <tarvek/testing/client.hpp>
#include <tarvek/testing/other_user.hpp>
#include <tarvek/testing/private_bus.hpp>

#include <tarvek/common/exceptions.hpp>

#include <gtest/gtest.h>

#include <pwd.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace tarvek::test {
namespace {

TEST(RunAs, AClientInTheChildIsSeenByTheBusAsThatUser)
{
    if (auto why = cannot_run_as("nobody"))
        GTEST_SKIP() << *why;
    PrivateBus bus;
    std::string const uid = run_as("nobody", [&] {
        Client client(bus.address());
        auto const seen = client.call<std::uint32_t>("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                     "org.freedesktop.DBus", "GetConnectionUnixUser",
                                                     client.unique_name());
        return std::to_string(seen.value());
    });
    EXPECT_EQ(uid, std::to_string(::getpwnam("nobody")->pw_uid));
}

TEST(RunAs, AnExceptionInTheChildFailsTheRunWithItsText)
{
    if (auto why = cannot_run_as("nobody"))
        GTEST_SKIP() << *why;
    try {
        run_as("nobody", []() -> std::string { throw std::runtime_error("the child gave up"); });
        FAIL() << "a failing child went unnoticed";
    } catch (tarvek::invalid_state_error const& error) {
        EXPECT_STREQ(error.what(), "run_as nobody: the child failed: the child gave up");
    }
}

TEST(RunAs, AnUnknownUserIsRefusedWithTheReason)
{
    auto const why = cannot_run_as("tarvek-no-such-user");
    ASSERT_TRUE(why.has_value());
    EXPECT_EQ(*why, "no user tarvek-no-such-user on this system");
    EXPECT_THROW(run_as("tarvek-no-such-user", [] { return std::string(); }), tarvek::invalid_state_error);
}

TEST(RunAs, WithoutRootSwitchingIsRefusedWithTheReason)
{
    if (::geteuid() == 0)
        GTEST_SKIP() << "runs as root, who may switch users";
    auto const why = cannot_run_as("nobody");
    ASSERT_TRUE(why.has_value());
    EXPECT_NE(why->find("needs root"), std::string::npos) << *why;
    EXPECT_THROW(run_as("nobody", [] { return std::string(); }), tarvek::invalid_state_error);
}

} // namespace
} // namespace tarvek::test
