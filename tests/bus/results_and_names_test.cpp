// SPDX-License-Identifier: LGPL-2.1-or-later
// Several results against one struct result, and argument names, as real clients see
// them: an sd-bus client reads the values and the Introspect XML, gdbus introspects.
#include "bus/bus_fixture.hpp"
#include "bus/meter.hpp"

#include <cstdio>
#include <string>

namespace tarvek::test {
namespace {

constexpr char const* meter_path = "/org/sample/meter";
constexpr char const* meter = "org.sample.Meter";

class ResultsAndNamesTest : public BusTest {
protected:
    ResultsAndNamesTest()
    {
        publish(meter_path, [](tarvek::Object& object) { provider::add_interface<Meter>(object); });
        start();
    }

    // The Introspect XML of the meter's object, from an sd-bus client.
    std::string introspect()
    {
        CallResult const result = call(meter_path, "org.freedesktop.DBus.Introspectable", "Introspect");
        if (!result.ok())
            throw std::runtime_error("Introspect failed: " + result.error_message);
        char const* xml = nullptr;
        if (sd_bus_message_read(result.reply.get(), "s", &xml) <= 0)
            throw std::runtime_error("Introspect: no text");
        return xml;
    }

    // The element of `kind` ("method", "signal") named `name` in `xml`, or "".
    static std::string element(std::string const& xml, std::string const& kind, std::string const& name)
    {
        std::string const open = "<" + kind + " name=\"" + name + "\">";
        auto const begin = xml.find(open);
        if (begin == std::string::npos)
            return {};
        auto const end = xml.find("</" + kind + ">", begin);
        return xml.substr(begin, end - begin);
    }

    static int count(std::string const& text, std::string const& part)
    {
        int found = 0;
        for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
            ++found;
        return found;
    }

    // Runs a shell command; its output and whether it succeeded.
    static std::pair<bool, std::string> run(std::string const& command)
    {
        std::string output;
        FILE* const child = ::popen((command + " 2>&1").c_str(), "r");
        if (!child)
            throw std::runtime_error("popen failed");
        char buffer[512];
        while (std::fgets(buffer, sizeof buffer, child) != nullptr)
            output += buffer;
        return {::pclose(child) == 0, output};
    }
};

TEST_F(ResultsAndNamesTest, AMethodWithTwoResultsAnswersTwoValues)
{
    CallResult const result
        = call(meter_path, meter, "Bounds", [](sd_bus_message* m) { sd_bus_message_append(m, "i", 7); });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_STREQ(sd_bus_message_get_signature(result.reply.get(), 1), "is");
    std::int32_t low = 0;
    char const* label = nullptr;
    ASSERT_GT(sd_bus_message_read(result.reply.get(), "is", &low, &label), 0);
    EXPECT_EQ(low, -7);
    EXPECT_STREQ(label, "high");
}

TEST_F(ResultsAndNamesTest, AMethodWithAStructResultAnswersOneStruct)
{
    CallResult const result
        = call(meter_path, meter, "Pair", [](sd_bus_message* m) { sd_bus_message_append(m, "i", 7); });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_STREQ(sd_bus_message_get_signature(result.reply.get(), 1), "(is)");
    std::int32_t low = 0;
    char const* label = nullptr;
    ASSERT_GT(sd_bus_message_read(result.reply.get(), "(is)", &low, &label), 0);
    EXPECT_EQ(low, -7);
    EXPECT_STREQ(label, "high");
}

TEST_F(ResultsAndNamesTest, IntrospectionShowsTwoNamedOutArguments)
{
    std::string const method = element(introspect(), "method", "Bounds");
    ASSERT_FALSE(method.empty());
    EXPECT_EQ(count(method, "<arg "), 3) << method;
    EXPECT_NE(method.find(R"(<arg type="i" name="scale" direction="in"/>)"), std::string::npos) << method;
    EXPECT_NE(method.find(R"(<arg type="i" name="low" direction="out"/>)"), std::string::npos) << method;
    EXPECT_NE(method.find(R"(<arg type="s" name="label" direction="out"/>)"), std::string::npos) << method;
}

TEST_F(ResultsAndNamesTest, IntrospectionShowsAStructResultAsOneArgument)
{
    std::string const method = element(introspect(), "method", "Pair");
    EXPECT_EQ(count(method, "direction=\"out\""), 1) << method;
    EXPECT_NE(method.find(R"x(<arg type="(is)" name="pair" direction="out"/>)x"), std::string::npos)
        << method;
}

TEST_F(ResultsAndNamesTest, IntrospectionShowsTheNamesOfSignalArguments)
{
    std::string const signal = element(introspect(), "signal", "Crossed");
    EXPECT_NE(signal.find(R"(<arg type="i" name="value"/>)"), std::string::npos) << signal;
    EXPECT_NE(signal.find(R"(<arg type="s" name="direction"/>)"), std::string::npos) << signal;
}

TEST_F(ResultsAndNamesTest, MembersWithoutNamesIntrospectWithoutNames)
{
    std::string const xml = introspect();
    std::string const method = element(xml, "method", "Echo");
    std::string const signal = element(xml, "signal", "Ticked");
    EXPECT_EQ(count(method, "<arg "), 2) << method;
    EXPECT_EQ(count(method, "name="), 1) << "only the method's own name: " << method;
    EXPECT_EQ(count(signal, "<arg "), 1) << signal;
    EXPECT_EQ(count(signal, "name="), 1) << signal;
}

TEST_F(ResultsAndNamesTest, GdbusIntrospectShowsTheNames)
{
    auto const [ok, output] = run("gdbus introspect --address '" + daemon.address() + "' --dest "
        + server_name + " --object-path " + meter_path);
    ASSERT_TRUE(ok) << output;
    // gdbus lists each argument with its direction, type and name.
    EXPECT_NE(output.find("in  i scale"), std::string::npos) << output;
    EXPECT_NE(output.find("out i low"), std::string::npos) << output;
    EXPECT_NE(output.find("out s label"), std::string::npos) << output;
    EXPECT_NE(output.find("out (is) pair"), std::string::npos) << output;
    EXPECT_NE(output.find("i value"), std::string::npos) << output;
    EXPECT_NE(output.find("s direction"), std::string::npos) << output;
}

TEST_F(ResultsAndNamesTest, GdbusReadsTwoResultsAsTwoValues)
{
    auto const [ok, output] = run("gdbus call --address '" + daemon.address() + "' --dest " + server_name
        + " --object-path " + meter_path + " --method org.sample.Meter.Bounds 3");
    ASSERT_TRUE(ok) << output;
    EXPECT_EQ(output, "(-3, 'high')\n");
    auto const [pair_ok, pair] = run("gdbus call --address '" + daemon.address() + "' --dest " + server_name
        + " --object-path " + meter_path + " --method org.sample.Meter.Pair 3");
    ASSERT_TRUE(pair_ok) << pair;
    EXPECT_EQ(pair, "((-3, 'high'),)\n");
}

} // namespace
} // namespace tarvek::test
