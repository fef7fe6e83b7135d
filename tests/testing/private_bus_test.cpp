// SPDX-License-Identifier: LGPL-2.1-or-later
// The private bus of the test fixture: it starts, serves clients, and leaves no process
// and no directory behind, whether the test ends well, throws, or the daemon can't start.
#include <tarvek/testing/private_bus.hpp>

#include <tarvek/common/exceptions.hpp>

#include <gtest/gtest.h>

#include <systemd/sd-bus.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include <unistd.h>

namespace tarvek::test {
namespace {

bool process_exists(pid_t pid)
{
    return ::kill(pid, 0) == 0 || errno != ESRCH;
}

// A TMPDIR of the test's own, so that what the bus leaves there can be counted.
class PrivateBusTest : public ::testing::Test {
protected:
    PrivateBusTest()
    {
        char const* const tmp = std::getenv("TMPDIR");
        saved = tmp ? std::optional<std::string>(tmp) : std::nullopt;
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/tarvek-fixture-test-XXXXXX";
        if (!::mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp failed");
        scratch = pattern;
        ::setenv("TMPDIR", scratch.c_str(), 1);
    }
    ~PrivateBusTest() override
    {
        if (saved)
            ::setenv("TMPDIR", saved->c_str(), 1);
        else
            ::unsetenv("TMPDIR");
        std::error_code ignored;
        std::filesystem::remove_all(scratch, ignored);
    }

    bool scratch_is_empty() const { return std::filesystem::is_empty(scratch); }

    std::optional<std::string> saved;
    std::filesystem::path scratch;
};

TEST_F(PrivateBusTest, StartsADaemonThatClientsConnectTo)
{
    PrivateBus bus;
    EXPECT_TRUE(bus.running());
    EXPECT_TRUE(process_exists(bus.pid()));
    EXPECT_EQ(bus.address().rfind("unix:path=" + scratch.string() + "/tarvek-bus-", 0), 0U) << bus.address();
    BusPtr client(bus.connect());
    char const* name = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(client.get(), &name), 0);
    EXPECT_EQ(std::string(name).rfind(":1.", 0), 0U) << name;
}

TEST_F(PrivateBusTest, LeavesNoProcessAndNoDirectoryWhenItEnds)
{
    pid_t pid = -1;
    std::string directory;
    {
        PrivateBus bus;
        pid = bus.pid();
        directory = bus.directory();
        ASSERT_TRUE(std::filesystem::exists(directory + "/bus"));
    }
    EXPECT_FALSE(process_exists(pid));
    EXPECT_FALSE(std::filesystem::exists(directory));
    EXPECT_TRUE(scratch_is_empty());
}

TEST_F(PrivateBusTest, StopEndsTheDaemonAndRefusesFurtherClients)
{
    PrivateBus bus;
    pid_t const pid = bus.pid();
    bus.stop();
    EXPECT_FALSE(bus.running());
    EXPECT_FALSE(process_exists(pid));
    EXPECT_TRUE(scratch_is_empty());
    EXPECT_THROW(bus.connect(), tarvek::invalid_state_error);
    bus.stop(); // a second time changes nothing
}

TEST_F(PrivateBusTest, CleansUpWhileAnExceptionLeavesTheTest)
{
    pid_t pid = -1;
    try {
        PrivateBus bus;
        pid = bus.pid();
        throw std::runtime_error("the test failed");
    } catch (std::runtime_error const&) {
    }
    ASSERT_GT(pid, 0);
    EXPECT_FALSE(process_exists(pid));
    EXPECT_TRUE(scratch_is_empty());
}

TEST_F(PrivateBusTest, AMissingDaemonIsReportedAsNotFound)
{
    try {
        PrivateBus bus(std::chrono::seconds(1), "tarvek-no-such-dbus-daemon");
        FAIL() << "a bus started without its daemon";
    } catch (tarvek::system_error const& error) {
        EXPECT_EQ(error.code().value(), ENOENT);
        EXPECT_NE(std::string(error.what()).find("tarvek-no-such-dbus-daemon not found in PATH"), std::string::npos)
            << error.what();
    }
    EXPECT_TRUE(scratch_is_empty());
}

TEST_F(PrivateBusTest, ADaemonThatEndsAtOnceIsReportedAndCleanedUp)
{
    try {
        PrivateBus bus(std::chrono::seconds(5), "false");
        FAIL() << "a bus started with a daemon that printed no address";
    } catch (tarvek::system_error const& error) {
        EXPECT_NE(std::string(error.what()).find("false exited before it printed its address"), std::string::npos)
            << error.what();
    }
    EXPECT_TRUE(scratch_is_empty());
}

} // namespace
} // namespace tarvek::test
