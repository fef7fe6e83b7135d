// SPDX-License-Identifier: LGPL-2.1-or-later
// The state directory of tarvek-lamps: what a clean stop writes comes back at the next
// start, SIGUSR1 writes it while the service runs, and a lamp added later finds its file
// too.
#include "examples/lamps_service.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/storage/documents.hpp>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>

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

// Whether `text` is a complete state document of the lamp at `path`.
bool is_complete_state(std::string const& text, std::string const& path)
{
    std::istringstream in(text);
    tarvek::provider::storage::Object document;
    try {
        document.read_json_checked(in);
    } catch (tarvek::exception const&) {
        return false;
    }
    return document.path() == path;
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

    // Many long tags, so that writing the file takes a while and a reader that can see a
    // file being written is likely to.
    void set_many_tags(std::string const& path)
    {
        std::vector<std::string> tags;
        for (int i = 0; i < 4000; ++i)
            tags.push_back("tag number " + std::to_string(i) + " of a long list");
        CallResult const result = set(client.get(), path, lamp_interface, "Tags", [&](sd_bus_message* m) {
            sd_bus_message_open_container(m, 'v', "as");
            sd_bus_message_open_container(m, 'a', "s");
            for (auto const& tag : tags)
                sd_bus_message_append(m, "s", tag.c_str());
            sd_bus_message_close_container(m);
            sd_bus_message_close_container(m);
        });
        ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    }

    // SIGUSR1, and wait until lamp1's file is a complete state that holds `text`.
    void save_and_wait_for(std::string const& text)
    {
        service->signal(SIGUSR1);
        auto const deadline = std::chrono::steady_clock::now() + 10s;
        while (!has_saved(text) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(5ms);
        ASSERT_TRUE(has_saved(text)) << "no complete state file with " << text << " after SIGUSR1";
    }

    bool has_saved(std::string const& text) const
    {
        std::string const saved = file_text(lamp1_file);
        return saved.find(text) != std::string::npos && is_complete_state(saved, lamp1_path);
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

TEST_F(LampStateTest, AReaderPollingTheStateFileWhileSIGUSR1SavesRunNeverSeesAPartialDocument)
{
    start_service(ServiceOptions().with_state_dir(state));
    set_many_tags(lamp1_path);
    set_label(lamp1_path, "polled");
    save_and_wait_for("polled");

    std::atomic<bool> stop = false;
    std::atomic<unsigned long> reads = 0;
    std::atomic<unsigned long> partial = 0;
    std::string first_partial;
    std::thread reader([&] {
        while (!stop) {
            std::string const text = file_text(lamp1_file);
            ++reads;
            if (!is_complete_state(text, lamp1_path) && partial++ == 0)
                first_partial = text.substr(0, 200);
        }
    });
    for (int i = 0; i < 100; ++i) {
        service->signal(SIGUSR1);
        std::this_thread::sleep_for(20ms);
    }
    set_label(lamp1_path, "last");
    save_and_wait_for("last");
    stop = true;
    reader.join();

    EXPECT_GT(reads.load(), 0U);
    EXPECT_EQ(partial.load(), 0U) << "of " << reads.load() << " reads; the first began with:\n" << first_partial;
    EXPECT_FALSE(std::filesystem::exists(lamp1_file.string() + ".tmp")) << "a save left its temporary file";
}

TEST_F(LampStateTest, AStrayTemporaryFileOfAKilledSaveDoesNotStopTheNextStart)
{
    start_service(ServiceOptions().with_state_dir(state));
    set_label(lamp1_path, "complete");
    ASSERT_EQ(stop_service(), 0);
    {
        // What a save killed while writing leaves: the start of a document.
        std::ofstream stray(lamp1_file.string() + ".tmp");
        stray << R"({"interfaces": {"org.sample.Lamp": {"properties": {"Label": "incompl)";
    }

    start_service(ServiceOptions().with_state_dir(state));
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Label"), "<s \"complete\">");
    set_label(lamp1_path, "saved again");
    save_and_wait_for("saved again");
    EXPECT_FALSE(std::filesystem::exists(lamp1_file.string() + ".tmp")) << "the next save replaces the stray file";
}

TEST_F(LampStateTest, AKillDuringALoopOfSavesLeavesACompleteFileForTheNextStart)
{
    start_service(ServiceOptions().with_state_dir(state));
    set_many_tags(lamp1_path);
    set_label(lamp1_path, "survives a kill");
    save_and_wait_for("survives a kill");
    // Kills that fall at different moments of a save, some of them inside the write.
    for (int round = 0; round < 5; ++round) {
        if (round > 0)
            start_service(ServiceOptions().with_state_dir(state));
        for (int i = 0; i < 10 + 7 * round; ++i) {
            service->signal(SIGUSR1);
            std::this_thread::sleep_for(std::chrono::microseconds(500 + 300 * round));
        }
        service->kill();
        EXPECT_TRUE(is_complete_state(file_text(lamp1_file), lamp1_path)) << "after the kill of round " << round;
    }

    start_service(ServiceOptions().with_state_dir(state));
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Label"), "<s \"survives a kill\">");
}

TEST_F(LampStateTest, AnUnreadableStateFileIsSetAsideWithAWarningAndTheLampStartsFromItsDefaults)
{
    start_service(ServiceOptions().with_state_dir(state));
    set_label(lamp1_path, "from before");
    set_label(lamp2_path, "lamp two");
    ASSERT_EQ(stop_service(), 0);
    // lamp1: empty, as a save in place left it when killed; lamp2: well formed, but of
    // another lamp.
    std::ofstream(lamp1_file, std::ios::trunc).flush();
    std::ofstream(lamp2_file, std::ios::trunc) << R"({"interfaces": {}, "path": "/org/sample/lamps/lamp1"})";

    // Started as start_service does, with stderr captured.
    std::vector<std::string> const arguments{lamps_binary(), "--bus-address", daemon.address(), "--state-dir",
        state.string()};
    service = std::make_unique<ServiceProcess>(arguments,
        std::vector<std::string>{"VREL2_POLICY=" + (directory.path() / "policy.conf").string()}, true);
    ASSERT_EQ(service->read_line(15s), "ready") << "an unreadable state file stopped the start";
    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Label"), "<s \"\">");
    EXPECT_EQ(property(client.get(), lamp2_path, lamp_interface, "Label"), "<s \"\">");
    EXPECT_EQ(file_text(lamp1_file.string() + ".bad"), "");
    EXPECT_TRUE(std::filesystem::exists(lamp1_file.string() + ".bad"));
    EXPECT_NE(file_text(lamp2_file.string() + ".bad").find("/org/sample/lamps/lamp1"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(lamp1_file)) << "moved aside, not left for the next save to overwrite";
    ASSERT_EQ(stop_service(), 0);

    std::string const errors = service->read_stderr(5s);
    EXPECT_NE(errors.find("tarvek-lamps: cannot restore /org/sample/lamps/lamp1 from " + lamp1_file.string()
                  + " (Malformed JSON document); it starts from its defaults, and the file is kept as "
                  + lamp1_file.string() + ".bad\n"),
        std::string::npos)
        << errors;
    EXPECT_NE(errors.find("cannot restore /org/sample/lamps/lamp2 from " + lamp2_file.string()
                  + " (Path differs: /org/sample/lamps/lamp2 != /org/sample/lamps/lamp1)"),
        std::string::npos)
        << errors;
    // The clean stop has written good files again.
    EXPECT_TRUE(is_complete_state(file_text(lamp1_file), lamp1_path));
    EXPECT_TRUE(is_complete_state(file_text(lamp2_file), lamp2_path));
}

} // namespace
} // namespace tarvek::test::lamps
