// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek-lamps on the bus: its objects and interfaces as introspection shows them, the
// defaults of every property, each method, the validation of writes, the ranges, reads
// while a method blocks the lamps, and a write that the access policy refuses.
#include "examples/lamps_service.hpp"

#include <algorithm>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace tarvek::test::lamps {
namespace {

std::string introspect(sd_bus* bus, std::string const& path)
{
    CallResult const result = call(bus, path, "org.freedesktop.DBus.Introspectable", "Introspect");
    if (!result.ok())
        return "error: " + result.error_name;
    char const* xml = nullptr;
    if (sd_bus_message_read(result.reply.get(), "s", &xml) <= 0)
        return "error: no string";
    return xml;
}

// The text of one interface element of an introspection, empty if there is none.
std::string interface_element(std::string const& xml, std::string const& name)
{
    auto const start = xml.find("<interface name=\"" + name + "\">");
    if (start == std::string::npos)
        return {};
    auto const end = xml.find("</interface>", start);
    return xml.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

// Property name -> "type access".
std::map<std::string, std::string> introspected_properties(std::string const& element)
{
    std::map<std::string, std::string> properties;
    std::regex const pattern(R"re(<property name="([^"]+)" type="([^"]+)" access="([^"]+)")re");
    for (std::sregex_iterator it(element.begin(), element.end(), pattern), end; it != end; ++it)
        properties[(*it)[1]] = std::string((*it)[2]) + " " + std::string((*it)[3]);
    return properties;
}

// Method or signal name -> its arguments in order, each as "direction:type" (signals:
// the type alone).
std::map<std::string, std::string> introspected_members(std::string const& element, std::string const& kind)
{
    std::map<std::string, std::string> members;
    std::regex const member("<" + kind + R"re( name="([^"]+)"\s*(/>|>([\s\S]*?)</)re" + kind + ">)");
    std::regex const argument(R"re(<arg type="([^"]+)"(?: name="[^"]*")?(?: direction="([^"]+)")?)re");
    for (std::sregex_iterator it(element.begin(), element.end(), member), end; it != end; ++it) {
        std::string const body = (*it)[3];
        std::string arguments;
        for (std::sregex_iterator a(body.begin(), body.end(), argument); a != end; ++a) {
            if (!arguments.empty())
                arguments += " ";
            arguments += (*a)[2].matched ? std::string((*a)[2]) + ":" + std::string((*a)[1]) : std::string((*a)[1]);
        }
        members[(*it)[1]] = arguments;
    }
    return members;
}

// Names of the child nodes that an introspection lists.
std::vector<std::string> child_nodes(std::string const& xml)
{
    std::vector<std::string> nodes;
    std::regex const pattern(R"re(<node name="([^"/][^"]*)")re");
    for (std::sregex_iterator it(xml.begin(), xml.end(), pattern), end; it != end; ++it)
        nodes.push_back((*it)[1]);
    return nodes;
}

std::map<std::string, std::string> get_all(sd_bus* bus, std::string const& path, char const* interface)
{
    CallResult const result = call(bus, path, properties_interface, "GetAll",
        [&](sd_bus_message* m) { sd_bus_message_append(m, "s", interface); });
    if (!result.ok())
        return {{"error", result.error_name + ": " + result.error_message}};
    return read_properties(result.reply.get());
}

using std::chrono::steady_clock;

class LampsServiceTest : public LampsTest { };

TEST_F(LampsServiceTest, IntrospectionShowsEveryMemberOfTheLampInterface)
{
    start_service();
    std::string const lamp = interface_element(introspect(client.get(), lamp1_path), lamp_interface);
    ASSERT_FALSE(lamp.empty()) << introspect(client.get(), lamp1_path);

    EXPECT_EQ(introspected_properties(lamp), (std::map<std::string, std::string>{
        {"On", "b readwrite"},
        {"Level", "u readwrite"},
        {"MaxLevel", "u readwrite"},
        {"Label", "s readwrite"},
        {"Color", "(ddd) readwrite"},
        {"Tags", "as readwrite"},
        {"Settings", "a{ss} readwrite"},
        {"Serial", "s read"},
        {"BlinkCount", "t read"},
    }));
    EXPECT_EQ(introspected_members(lamp, "method"), (std::map<std::string, std::string>{
        {"Toggle", "out:b"},
        {"Blink", "in:u out:t"},
        {"Sleep", "in:u"},
        {"Fail", "in:s"},
    }));
    EXPECT_EQ(introspected_members(lamp, "signal"), (std::map<std::string, std::string>{{"Blinked", "t"}}));
}

TEST_F(LampsServiceTest, IntrospectionShowsTheInfoAndManagerInterfaces)
{
    start_service();
    std::string const info = interface_element(introspect(client.get(), lamp1_path), info_interface);
    EXPECT_EQ(introspected_properties(info),
        (std::map<std::string, std::string>{{"Model", "s read"}, {"Firmware", "s read"}}));

    std::string const root = introspect(client.get(), root_path);
    std::string const manager = interface_element(root, manager_interface);
    EXPECT_EQ(introspected_members(manager, "method"), (std::map<std::string, std::string>{
        {"AddLamp", "in:s out:o"},
        {"RemoveLamp", "in:o"},
        {"List", "out:ao"},
    })) << root;
    EXPECT_FALSE(interface_element(root, object_manager_interface).empty()) << root;
}

TEST_F(LampsServiceTest, TheManagerTheEmptyObjectAndEachLampAreOnTheBus)
{
    start_service(ServiceOptions().with_lamps(3));
    std::vector<std::string> nodes = child_nodes(introspect(client.get(), root_path));
    std::sort(nodes.begin(), nodes.end());
    EXPECT_EQ(nodes, (std::vector<std::string>{"empty", "lamp1", "lamp2", "lamp3"}));

    for (std::string const name : {"lamp1", "lamp2", "lamp3"}) {
        SCOPED_TRACE(name);
        std::string const xml = introspect(client.get(), std::string(root_path) + "/" + name);
        EXPECT_FALSE(interface_element(xml, lamp_interface).empty()) << xml;
        EXPECT_FALSE(interface_element(xml, info_interface).empty()) << xml;
        EXPECT_FALSE(interface_element(xml, extended_interface).empty()) << xml;
    }

    // An object of its own, though with none of the sample interfaces.
    std::string const empty = introspect(client.get(), "/org/sample/lamps/empty");
    EXPECT_FALSE(interface_element(empty, extended_interface).empty()) << empty;
    EXPECT_TRUE(interface_element(empty, lamp_interface).empty()) << empty;
    EXPECT_TRUE(interface_element(empty, info_interface).empty()) << empty;

    EXPECT_FALSE(get(client.get(), "/org/sample/lamps/lamp4", lamp_interface, "On").ok());
}

TEST_F(LampsServiceTest, EveryLampPropertyStartsAtItsDefault)
{
    start_service();
    std::map<std::string, std::string> expected{
        {"On", "<b false>"},
        {"Level", "<u 0>"},
        {"MaxLevel", "<u 100>"},
        {"Label", "<s \"\">"},
        {"Color", "<(ddd) (1, 1, 1)>"},
        {"Tags", "<as []>"},
        {"Settings", "<a{ss} {}>"},
        {"Serial", "<s \"LMP-1\">"},
        {"BlinkCount", "<t 0>"},
    };
    EXPECT_EQ(get_all(client.get(), lamp1_path, lamp_interface), expected);
    expected["Serial"] = "<s \"LMP-2\">";
    EXPECT_EQ(get_all(client.get(), lamp2_path, lamp_interface), expected);
}

TEST_F(LampsServiceTest, InfoPropertiesHaveTheirFixedValues)
{
    start_service();
    std::map<std::string, std::string> const expected{{"Model", "<s \"Sample Lamp\">"}, {"Firmware", "<s \"1.0\">"}};
    EXPECT_EQ(get_all(client.get(), lamp1_path, info_interface), expected);
    EXPECT_EQ(get_all(client.get(), lamp2_path, info_interface), expected);
}

TEST_F(LampsServiceTest, ToggleFlipsOnReturnsItAndAnnouncesTheChange)
{
    start_service();
    BusPtr watcher(daemon.connect());
    SignalWatch changes(watcher.get(), lamp1_path, properties_interface, "PropertiesChanged");

    CallResult result = call(client.get(), lamp1_path, lamp_interface, "Toggle");
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(render(result.reply.get()), "true");
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "On"), "<b true>");

    ASSERT_TRUE(changes.wait_for(1)) << "no PropertiesChanged after Toggle";
    sd_bus_message* signal = changes.messages.front().get();
    char const* interface = nullptr;
    ASSERT_GT(sd_bus_message_read(signal, "s", &interface), 0);
    EXPECT_STREQ(interface, lamp_interface);
    std::map<std::string, std::string> const changed = read_properties(signal);
    EXPECT_EQ(changed, (std::map<std::string, std::string>{{"On", "<b true>"}}));

    result = call(client.get(), lamp1_path, lamp_interface, "Toggle");
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(render(result.reply.get()), "false");
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "On"), "<b false>");
    // The other lamp is its own.
    EXPECT_EQ(property(client.get(), lamp2_path, lamp_interface, "On"), "<b false>");
}

TEST_F(LampsServiceTest, BlinkAnswersAfterItsBlinksWithTheNewCountAndSignalsIt)
{
    start_service();
    BusPtr watcher(daemon.connect());
    SignalWatch blinked(watcher.get(), lamp1_path, lamp_interface, "Blinked");

    auto const started = steady_clock::now();
    CallResult result = call(client.get(), lamp1_path, lamp_interface, "Blink",
        [](sd_bus_message* m) { sd_bus_message_append(m, "u", 20U); });
    auto const took = steady_clock::now() - started;
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(render(result.reply.get()), "20");
    EXPECT_GE(took, 200ms) << "20 blinks of 10 ms each answered early";
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "BlinkCount"), "<t 20>");

    ASSERT_TRUE(blinked.wait_for(1)) << "no Blinked signal";
    EXPECT_EQ(render(blinked.messages[0].get()), "20");

    result = call(client.get(), lamp1_path, lamp_interface, "Blink",
        [](sd_bus_message* m) { sd_bus_message_append(m, "u", 3U); });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(render(result.reply.get()), "23");
    ASSERT_TRUE(blinked.wait_for(2));
    EXPECT_EQ(render(blinked.messages[1].get()), "23");
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "BlinkCount"), "<t 23>");
    EXPECT_EQ(property(client.get(), lamp2_path, lamp_interface, "BlinkCount"), "<t 0>");
}

TEST_F(LampsServiceTest, AShortBlinkAnswersBeforeALongerOneThatStartedFirst)
{
    start_service();
    // Blink answers later and leaves the executor free: a long blink of one lamp does not
    // hold up a short one of the other.
    PendingCall long_blink(client.get(), lamp1_path, lamp_interface, "Blink",
        [](sd_bus_message* m) { sd_bus_message_append(m, "u", 100U); });
    PendingCall short_blink(client.get(), lamp2_path, lamp_interface, "Blink",
        [](sd_bus_message* m) { sd_bus_message_append(m, "u", 2U); });
    ASSERT_TRUE(short_blink.wait());
    EXPECT_FALSE(long_blink.answered()) << "the short blink waited for the long one";
    ASSERT_TRUE(long_blink.wait());
    ASSERT_TRUE(long_blink.result.ok()) << long_blink.result.error_name << ": " << long_blink.result.error_message;
    ASSERT_TRUE(short_blink.result.ok()) << short_blink.result.error_name << ": " << short_blink.result.error_message;
    EXPECT_EQ(render(long_blink.result.reply.get()), "100");
    EXPECT_EQ(render(short_blink.result.reply.get()), "2");
}

TEST_F(LampsServiceTest, SleepReturnsOnlyAfterTheRequestedTime)
{
    start_service();
    auto const started = steady_clock::now();
    CallResult const result = call(client.get(), lamp1_path, lamp_interface, "Sleep",
        [](sd_bus_message* m) { sd_bus_message_append(m, "u", 300U); });
    auto const took = steady_clock::now() - started;
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_GE(took, 300ms);
    EXPECT_TRUE(sd_bus_message_is_empty(result.reply.get()));
}

TEST_F(LampsServiceTest, FailAnswersTheErrorOfEachKind)
{
    start_service();
    std::map<std::string, std::string> const errors{
        {"invalid", invalid_args},
        {"validation", invalid_args},
        {"denied", access_denied},
        {"runtime", "org.freedesktop.DBus.Error.Failed"},
    };
    for (auto const& [kind, name] : errors) {
        SCOPED_TRACE(kind);
        CallResult const result = call(client.get(), lamp1_path, lamp_interface, "Fail",
            [&](sd_bus_message* m) { sd_bus_message_append(m, "s", kind.c_str()); });
        EXPECT_FALSE(result.ok());
        EXPECT_EQ(result.error_name, name);
        EXPECT_EQ(result.error_message, "requested failure");
    }
    for (char const* kind : {"", "other", "Runtime", "invalid "}) {
        SCOPED_TRACE(std::string("\"") + kind + "\"");
        CallResult const result = call(client.get(), lamp1_path, lamp_interface, "Fail",
            [&](sd_bus_message* m) { sd_bus_message_append(m, "s", kind); });
        EXPECT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    }
    // The lamps go on serving after their failures.
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Level"), "<u 0>");
}

TEST_F(LampsServiceTest, SetManyAppliesABatchThatIsValidAsAWhole)
{
    start_service();
    // Level 40 alone would be fine as well; MaxLevel 50 alone too: together they are
    // checked against each other.
    CallResult const result = call(client.get(), lamp1_path, extended_interface, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp_interface, 2, "MaxLevel", "u", 50U, "Level", "u", 40U);
    });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "MaxLevel"), "<u 50>");
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Level"), "<u 40>");
}

TEST_F(LampsServiceTest, ALevelAboveMaxLevelIsRefusedAndChangesNothing)
{
    start_service();
    CallResult result = call(client.get(), lamp1_path, extended_interface, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp_interface, 2, "MaxLevel", "u", 50U, "Level", "u", 40U);
    });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    auto const before = get_all(client.get(), lamp1_path, lamp_interface);

    result = set(client.get(), lamp1_path, lamp_interface, "Level",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "u", 60U); });
    EXPECT_EQ(result.error_name, invalid_args);

    // A batch is refused whole: its valid part is not written either.
    result = call(client.get(), lamp1_path, extended_interface, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp_interface, 2, "Label", "s", "kitchen", "Level", "u", 60U);
    });
    EXPECT_EQ(result.error_name, invalid_args);

    EXPECT_EQ(get_all(client.get(), lamp1_path, lamp_interface), before);
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Level"), "<u 40>");
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Label"), "<s \"\">");
}

TEST_F(LampsServiceTest, MaxLevelAbove100IsRefused)
{
    start_service();
    auto const before = get_all(client.get(), lamp1_path, lamp_interface);
    CallResult result = set(client.get(), lamp1_path, lamp_interface, "MaxLevel",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "u", 101U); });
    EXPECT_EQ(result.error_name, invalid_args);
    result = call(client.get(), lamp1_path, extended_interface, "Set",
        [](sd_bus_message* m) { sd_bus_message_append(m, "ssv", lamp_interface, "MaxLevel", "u", 101U); });
    EXPECT_EQ(result.error_name, invalid_args);
    EXPECT_EQ(get_all(client.get(), lamp1_path, lamp_interface), before);

    // The bound itself is allowed.
    result = set(client.get(), lamp1_path, lamp_interface, "MaxLevel",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "u", 100U); });
    EXPECT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
}

TEST_F(LampsServiceTest, AColorComponentOutsideZeroToOneIsRefused)
{
    start_service();
    auto const before = get_all(client.get(), lamp1_path, lamp_interface);
    for (auto const& color : {std::tuple{1.5, 0.0, 0.0}, std::tuple{0.0, 1.01, 0.0}, std::tuple{0.0, 0.0, -0.1}}) {
        auto const [r, g, b] = color;
        SCOPED_TRACE(testing::Message() << r << " " << g << " " << b);
        CallResult const result = set(client.get(), lamp1_path, lamp_interface, "Color", [&color](sd_bus_message* m) {
            sd_bus_message_append(m, "v", "(ddd)", std::get<0>(color), std::get<1>(color), std::get<2>(color));
        });
        EXPECT_EQ(result.error_name, invalid_args);
    }
    EXPECT_EQ(get_all(client.get(), lamp1_path, lamp_interface), before);

    CallResult const result = set(client.get(), lamp1_path, lamp_interface, "Color",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "(ddd)", 0.0, 0.5, 1.0); });
    EXPECT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Color"), "<(ddd) (0, 0.5, 1)>");
}

TEST_F(LampsServiceTest, ReadOnlyPropertiesRefuseWrites)
{
    start_service();
    CallResult result = set(client.get(), lamp1_path, lamp_interface, "Serial",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "s", "forged"); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.PropertyReadOnly");
    result = set(client.get(), lamp1_path, lamp_interface, "BlinkCount",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "t", std::uint64_t{9}); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.PropertyReadOnly");
    result = set(client.get(), lamp1_path, info_interface, "Model",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "s", "forged"); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.PropertyReadOnly");

    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Serial"), "<s \"LMP-1\">");
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "BlinkCount"), "<t 0>");
    EXPECT_EQ(property(client.get(), lamp1_path, info_interface, "Model"), "<s \"Sample Lamp\">");
}

TEST_F(LampsServiceTest, GetRangesAnswersTheRangesOfLevelAndColor)
{
    start_service();
    CallResult const result = call(client.get(), lamp1_path, extended_interface, "GetRanges", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sas", lamp_interface, 4, "Level", "MaxLevel", "Color", "On");
    });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(render(result.reply.get()),
        "{\"Level\": [[<u 0>, <u 100>]], \"MaxLevel\": [[<u 0>, <u 100>]], "
        "\"Color\": [[<(ddd) (0, 0, 0)>, <(ddd) (1, 1, 1)>]], \"On\": []}");
}

TEST_F(LampsServiceTest, GetAllRangesAnswersEveryLampProperty)
{
    start_service();
    CallResult const result = call(client.get(), lamp1_path, extended_interface, "GetAllRanges",
        [](sd_bus_message* m) { sd_bus_message_append(m, "s", lamp_interface); });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(render(result.reply.get()),
        "{\"On\": [], \"Level\": [[<u 0>, <u 100>]], \"MaxLevel\": [[<u 0>, <u 100>]], \"Label\": [], "
        "\"Color\": [[<(ddd) (0, 0, 0)>, <(ddd) (1, 1, 1)>]], \"Tags\": [], \"Settings\": [], \"Serial\": [], "
        "\"BlinkCount\": []}");
}

TEST_F(LampsServiceTest, ResetBringsBackTheDefaultsThatGetDefaultAnswers)
{
    start_service();
    CallResult result = call(client.get(), lamp1_path, extended_interface, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp_interface, 2, "Level", "u", 30U, "Label", "s", "desk");
    });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;

    result = call(client.get(), lamp1_path, extended_interface, "IsDefaulted", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sas", lamp_interface, 3, "Level", "Label", "On");
    });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(render(result.reply.get()), "{\"Level\": false, \"Label\": false, \"On\": true}");

    result = call(client.get(), lamp1_path, extended_interface, "GetDefault", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sas", lamp_interface, 3, "Level", "Color", "Serial");
    });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(render(result.reply.get()), "{\"Level\": <u 0>, \"Color\": <(ddd) (1, 1, 1)>, \"Serial\": <s \"\">}");

    result = call(client.get(), lamp1_path, extended_interface, "Reset", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sas", lamp_interface, 2, "Level", "Label");
    });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Level"), "<u 0>");
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Label"), "<s \"\">");
}

TEST_F(LampsServiceTest, ReadsAreAnsweredWhileAMethodSleeps)
{
    start_service();
    BusPtr sleeper(daemon.connect());
    PendingCall sleep(sleeper.get(), lamp1_path, lamp_interface, "Sleep",
        [](sd_bus_message* m) { sd_bus_message_append(m, "u", 1500U); });
    // Time for the service to hand the call to the lamps' executor before the reads come.
    std::this_thread::sleep_for(200ms);

    EXPECT_EQ(property(client.get(), lamp2_path, lamp_interface, "Level"), "<u 0>");
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Serial"), "<s \"LMP-1\">");
    EXPECT_EQ(get_all(client.get(), lamp2_path, info_interface).size(), 2U);
    auto const reads_done = steady_clock::now();

    // Take in whatever has arrived, without waiting: the sleep must still be going on.
    pump_until(sleeper.get(), [] { return false; }, 0ms);
    EXPECT_FALSE(sleep.answered()) << "the reads waited for the sleeping lamp";

    ASSERT_TRUE(sleep.wait()) << "Sleep never answered";
    EXPECT_TRUE(sleep.result.ok()) << sleep.result.error_name << ": " << sleep.result.error_message;
    EXPECT_GT(sleep.answered_at, reads_done);
}

TEST_F(LampsServiceTest, AServiceStoppedAsSoonAsItIsReadyExitsCleanly)
{
    // The lamps' loop may not have begun when the signal comes; it must end all the same.
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        start_service();
        ASSERT_EQ(stop_service(), 0);
    }
}

TEST_F(LampsServiceTest, AWriteThatThePolicyDeniesIsRefusedWithAccessDenied)
{
    start_service(ServiceOptions().with_policy("allow * org.sample.lamp.read\ndeny * *\n"));
    CallResult result = set(client.get(), lamp1_path, lamp_interface, "Level",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "u", 10U); });
    EXPECT_EQ(result.error_name, access_denied);
    EXPECT_NE(result.error_message.find("org.sample.Lamp.write.Level"), std::string::npos) << result.error_message;

    result = call(client.get(), lamp1_path, extended_interface, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp_interface, 1, "Label", "s", "hall");
    });
    EXPECT_EQ(result.error_name, access_denied);
    result = call(client.get(), lamp1_path, lamp_interface, "Toggle");
    EXPECT_EQ(result.error_name, access_denied);

    // Reading stays allowed, and shows nothing changed.
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Level"), "<u 0>");
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Label"), "<s \"\">");
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "On"), "<b false>");
}

TEST_F(LampsServiceTest, AWriteThatThePolicyAllowsGoesThrough)
{
    // The counterpart of the refusal: the same service with a policy that names the write.
    start_service(ServiceOptions().with_policy(
        "allow * org.sample.lamp.read\nallow * org.sample.lamp.write.level\ndeny * *\n"));
    CallResult result = set(client.get(), lamp1_path, lamp_interface, "Level",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "u", 10U); });
    EXPECT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Level"), "<u 10>");
    result = set(client.get(), lamp1_path, lamp_interface, "Label",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "s", "hall"); });
    EXPECT_EQ(result.error_name, access_denied);
}

} // namespace
} // namespace tarvek::test::lamps
