// SPDX-License-Identifier: LGPL-2.1-or-later
// The state directory of tarvek-lamps: what a clean stop writes comes back at the next
// start, SIGUSR1 writes it while the service runs, and a lamp added later finds its file
// too.
#include "examples/lamps_service.hpp"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <thread>

namespace tarvek::test::lamps {
namespace {

std::string file_text(std::filesystem::path const& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::map<std::string, std::string> get_all(sd_bus* bus, std::string const& path)
{
    CallResult const result = call(bus, path, properties_interface, "GetAll",
        [](sd_bus_message* m) { sd_bus_message_append(m, "s", lamp_interface); });
    if (!result.ok())
        return {{"error", result.error_name + ": " + result.error_message}};
    return read_properties(result.reply.get());
}

class LampStateTest : public LampsTest {
protected:
    std::filesystem::path const state = directory.path() / "state";
    std::filesystem::path const lamp1_file = state / "org:sample:lamps:lamp1.json";
    std::filesystem::path const lamp2_file = state / "org:sample:lamps:lamp2.json";

    void set_label(std::string const& path, char const* label)
    {
        CallResult const result = set(client.get(), path, lamp_interface, "Label",
            [&](sd_bus_message* m) { sd_bus_message_append(m, "v", "s", label); });
        ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    }
};

TEST_F(LampStateTest, ValuesSurviveARestartWithTheSameStateDirectory)
{
    start_service(ServiceOptions().with_state_dir(state));
    CallResult result = call(client.get(), lamp1_path, extended_interface, "SetMany", [](sd_bus_message* m) {
        sd_bus_message_append(m, "sa(sv)", lamp_interface, 6,
            "MaxLevel", "u", 80U,
            "Level", "u", 42U,
            "Label", "s", "desk",
            "Color", "(ddd)", 0.5, 0.25, 1.0,
            "Tags", "as", 2, "a", "b",
            "Settings", "a{ss}", 1, "mode", "warm");
    });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    result = call(client.get(), lamp1_path, lamp_interface, "Toggle");
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    set_label(lamp2_path, "two");

    auto const lamp1_before = get_all(client.get(), lamp1_path);
    auto const lamp2_before = get_all(client.get(), lamp2_path);
    ASSERT_EQ(lamp1_before.at("Level"), "<u 42>");
    ASSERT_EQ(lamp1_before.at("On"), "<b true>");

    ASSERT_EQ(stop_service(), 0);
    EXPECT_TRUE(std::filesystem::exists(lamp1_file)) << lamp1_file;
    EXPECT_TRUE(std::filesystem::exists(lamp2_file)) << lamp2_file;

    start_service(ServiceOptions().with_state_dir(state));
    EXPECT_EQ(get_all(client.get(), lamp1_path), lamp1_before);
    EXPECT_EQ(get_all(client.get(), lamp2_path), lamp2_before);
    ASSERT_EQ(stop_service(), 0);

    // Without the option the files are left alone.
    start_service();
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Level"), "<u 0>");
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Label"), "<s \"\">");
}

TEST_F(LampStateTest, SIGUSR1WritesTheStateWhileTheServiceRuns)
{
    start_service(ServiceOptions().with_state_dir(state));
    set_label(lamp1_path, "written-on-usr1");
    set_label(lamp2_path, "second-on-usr1");
    EXPECT_FALSE(std::filesystem::exists(lamp1_file));

    service->signal(SIGUSR1);
    auto const deadline = std::chrono::steady_clock::now() + 10s;
    while (file_text(lamp1_file).find("written-on-usr1") == std::string::npos
           && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    ASSERT_NE(file_text(lamp1_file).find("written-on-usr1"), std::string::npos) << "no state file after SIGUSR1";
    // The save runs on the lamps' executor; a call queued there behind it returns once it
    // is complete.
    ASSERT_TRUE(call(client.get(), lamp1_path, lamp_interface, "Sleep",
        [](sd_bus_message* m) { sd_bus_message_append(m, "u", 0U); }).ok());
    EXPECT_TRUE(service->running());
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Label"), "<s \"written-on-usr1\">");

    // No clean stop: what comes back is what SIGUSR1 wrote.
    service->kill();
    start_service(ServiceOptions().with_state_dir(state));
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Label"), "<s \"written-on-usr1\">");
    EXPECT_EQ(property(client.get(), lamp2_path, lamp_interface, "Label"), "<s \"second-on-usr1\">");
}

TEST_F(LampStateTest, ALampAddedLaterIsSavedAndRestoredWhenAddedAgain)
{
    start_service(ServiceOptions().with_state_dir(state));
    ASSERT_TRUE(call(client.get(), root_path, manager_interface, "AddLamp",
        [](sd_bus_message* m) { sd_bus_message_append(m, "s", "porch"); }).ok());
    std::string const porch = "/org/sample/lamps/porch";
    set_label(porch, "by the door");
    ASSERT_EQ(stop_service(), 0);
    EXPECT_TRUE(std::filesystem::exists(state / "org:sample:lamps:porch.json"));

    start_service(ServiceOptions().with_state_dir(state));
    EXPECT_FALSE(get(client.get(), porch, lamp_interface, "Label").ok()) << "only lamp1 and lamp2 exist at start";
    CallResult const added = call(client.get(), root_path, manager_interface, "AddLamp",
        [](sd_bus_message* m) { sd_bus_message_append(m, "s", "porch"); });
    ASSERT_TRUE(added.ok()) << added.error_name << ": " << added.error_message;
    EXPECT_EQ(property(client.get(), porch, lamp_interface, "Label"), "<s \"by the door\">");
}

} // namespace
} // namespace tarvek::test::lamps
