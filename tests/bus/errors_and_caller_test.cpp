// SPDX-License-Identifier: LGPL-2.1-or-later
// The application's own bus errors, and the caller that a handler and validate see, with
// real clients: the test's sd-bus connection, and gdbus in a child running as nobody.
#include "bus/bus_fixture.hpp"
#include "bus/meter.hpp"

#include <cstdio>
#include <regex>
#include <string>

#include <pwd.h>
#include <unistd.h>

namespace tarvek::test {
namespace {

constexpr char const* meter_path = "/org/sample/meter";
constexpr char const* meter = "org.sample.Meter";

class ErrorsAndCallerTest : public BusTest {
protected:
    ErrorsAndCallerTest()
    {
        publish(meter_path,
            [this](tarvek::Object& object) { meter_object = &provider::add_interface<Meter>(object); });
        start();
    }

    CallResult refuse(char const* member, char const* name, char const* text)
    {
        return call(meter_path, meter, member,
            [&](sd_bus_message* m) { sd_bus_message_append(m, "ss", name, text); });
    }

    CallResult set_limit(std::int32_t value)
    {
        return call(meter_path, "org.freedesktop.DBus.Properties", "Set",
            [&](sd_bus_message* m) { sd_bus_message_append(m, "ssv", meter, "Limit", "i", value); });
    }

    // Runs gdbus with `arguments` (shell words) as nobody, through a shell that first prints
    // its pid and then becomes gdbus: the printed pid is the client's.
    std::pair<pid_t, std::string> gdbus_as_nobody(std::string const& arguments)
    {
        std::string const command
            = "setpriv --reuid=nobody --regid=nogroup --clear-groups sh -c 'echo $$; exec gdbus \"$@\"' sh "
            + arguments + " --address '" + daemon.address() + "' --dest " + server_name + " --object-path "
            + meter_path + " 2>&1";
        FILE* const child = ::popen(command.c_str(), "r");
        if (!child)
            throw std::runtime_error("popen failed");
        std::string output;
        char buffer[512];
        while (std::fgets(buffer, sizeof buffer, child) != nullptr)
            output += buffer;
        int const status = ::pclose(child);
        auto const first_line = output.find('\n');
        if (status != 0 || first_line == std::string::npos)
            throw std::runtime_error("gdbus as nobody failed: " + output);
        return {static_cast<pid_t>(std::stol(output.substr(0, first_line))), output.substr(first_line + 1)};
    }

    Meter* meter_object = nullptr;
};

TEST_F(ErrorsAndCallerTest, ANamedErrorFromAHandlerReachesTheClientExactly)
{
    CallResult const result = refuse("Refuse", "org.sample.Meter.Error.Broken", "The meter is 100% broken");
    EXPECT_FALSE(result.ok());
    EXPECT_EQ(result.error_name, "org.sample.Meter.Error.Broken");
    EXPECT_EQ(result.error_message, "The meter is 100% broken");
}

TEST_F(ErrorsAndCallerTest, ANamedErrorGivenToAResponderReachesTheClientExactly)
{
    CallResult const result = refuse("RefuseLater", "org.sample.Meter.Error.Later", "Not now");
    EXPECT_EQ(result.error_name, "org.sample.Meter.Error.Later");
    EXPECT_EQ(result.error_message, "Not now");
}

TEST_F(ErrorsAndCallerTest, ANamedErrorFromValidateReachesTheWritingClient)
{
    CallResult const result = set_limit(-1);
    EXPECT_EQ(result.error_name, "org.sample.Meter.Error.Negative");
    EXPECT_EQ(result.error_message, "The limit is below zero");
    EXPECT_EQ(meter_object->limit.get(), 0);
}

TEST_F(ErrorsAndCallerTest, ANamedErrorFromValidateReachesASetManyClient)
{
    CallResult const result = call(meter_path, "com.omno.ExtendedProperties", "SetMany",
        [](sd_bus_message* m) { sd_bus_message_append(m, "sa(sv)", meter, 1, "Limit", "i", -5); });
    EXPECT_EQ(result.error_name, "org.sample.Meter.Error.Negative");
    EXPECT_EQ(result.error_message, "The limit is below zero");
}

TEST_F(ErrorsAndCallerTest, AMalformedErrorNameIsRefusedWhereTheErrorIsMade)
{
    // The handler's named_error can't be made: its constructor raises invalid_argument,
    // which takes the usual way.
    CallResult const result = refuse("Refuse", "no-dots", "text");
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(result.error_message, "Not a valid D-Bus error name: no-dots");
}

TEST_F(ErrorsAndCallerTest, GdbusReceivesTheNamedErrorExactly)
{
    std::string const command = "gdbus call --address '" + daemon.address() + "' --dest " + server_name
        + " --object-path " + meter_path
        + " --method org.sample.Meter.Refuse org.sample.Meter.Error.Broken 'It broke' 2>&1";
    FILE* const child = ::popen(command.c_str(), "r");
    ASSERT_NE(child, nullptr);
    std::string output;
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, child) != nullptr)
        output += buffer;
    EXPECT_NE(::pclose(child), 0);
    // gdbus prints the remote name and the text: "GDBus.Error:<name>: <text>".
    EXPECT_NE(output.find("GDBus.Error:org.sample.Meter.Error.Broken: It broke"), std::string::npos)
        << output;
}

TEST_F(ErrorsAndCallerTest, TheHandlerSeesTheSdBusClientAsItsCaller)
{
    CallResult const result = call(meter_path, meter, "Who");
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    char const* sender = nullptr;
    std::uint32_t uid = 0;
    std::int32_t pid = 0;
    char const* user = nullptr;
    ASSERT_GT(sd_bus_message_read(result.reply.get(), "suis", &sender, &uid, &pid, &user), 0);
    EXPECT_EQ(sender, unique_name(client.get()));
    EXPECT_EQ(uid, ::geteuid());
    EXPECT_EQ(pid, ::getpid());
    EXPECT_STREQ(user, ::getpwuid(::geteuid())->pw_name);
}

TEST_F(ErrorsAndCallerTest, ValidateSeesTheWritingClientAsItsCaller)
{
    CallResult const result = set_limit(4);
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    auto const seen = meter_object->seen_by_validate();
    ASSERT_TRUE(seen.has_value());
    EXPECT_EQ(seen->sender, unique_name(client.get()));
    EXPECT_EQ(seen->uid, ::geteuid());
    EXPECT_EQ(seen->pid, ::getpid());
    EXPECT_EQ(seen->user, ::getpwuid(::geteuid())->pw_name);
}

TEST_F(ErrorsAndCallerTest, TheHandlerSeesAClientOfAnotherUserAsThatUser)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "dropping to another user needs root";
    passwd const* const nobody = ::getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    auto const [pid, output] = gdbus_as_nobody("call --method org.sample.Meter.Who");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(
        output, match, std::regex(R"(^\('(:[0-9]+\.[0-9]+)', uint32 ([0-9]+), (-?[0-9]+), '([^']*)'\)\n$)")))
        << output;
    EXPECT_NE(match[1].str(), unique_name(client.get()));
    EXPECT_EQ(std::stoul(match[2].str()), nobody->pw_uid);
    EXPECT_EQ(std::stol(match[3].str()), pid);
    EXPECT_EQ(match[4].str(), "nobody");
}

TEST_F(ErrorsAndCallerTest, ValidateSeesAClientOfAnotherUserAsThatUser)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "dropping to another user needs root";
    passwd const* const nobody = ::getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    auto const [pid, output] = gdbus_as_nobody(
        "call --method org.freedesktop.DBus.Properties.Set org.sample.Meter Limit '<int32 9>'");
    EXPECT_EQ(output, "()\n");
    EXPECT_EQ(meter_object->limit.get(), 9);
    auto const seen = meter_object->seen_by_validate();
    ASSERT_TRUE(seen.has_value());
    EXPECT_EQ(seen->uid, nobody->pw_uid);
    EXPECT_EQ(seen->pid, pid);
    EXPECT_EQ(seen->user, "nobody");
    EXPECT_NE(seen->sender, unique_name(client.get()));
    EXPECT_EQ(seen->sender.rfind(":1.", 0), 0U) << seen->sender;
}

} // namespace
} // namespace tarvek::test
