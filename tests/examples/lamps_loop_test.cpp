// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek-lamps's main loop against what the server raises: a failed task is reported once
// and the service goes on answering; a bus that goes away ends the service with status 1
// and one line, after saving its state when it was asked to keep one.
#include "examples/lamps_service.hpp"

#include <fstream>
#include <iterator>
#include <sstream>

#include <sys/wait.h>

namespace tarvek::test::lamps {
namespace {

std::vector<std::string> lines_of(std::string const& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// As LampsTest, but the bus may go away under the service, and its stderr is the test's
// to read.
class LampsLoopTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        if (service && service->running()) {
            service->signal(SIGTERM);
            auto const status = service->wait(20s);
            EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
                << "tarvek-lamps did not exit cleanly after SIGTERM";
        }
    }

    void start_service(std::vector<std::string> extra = {})
    {
        auto const policy = directory.path() / "policy.conf";
        std::ofstream(policy) << "allow * *\n";
        std::vector<std::string> arguments{lamps_binary(), "--bus-address", daemon->address()};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        service = std::make_unique<ServiceProcess>(
            arguments, std::vector<std::string>{"VREL2_POLICY=" + policy.string()}, true);
        auto const line = service->read_line(15s);
        ASSERT_EQ(line, std::optional<std::string>("ready"));
    }

    // The exit status after the service has ended by itself, or -1.
    int exit_status()
    {
        auto const status = service->wait(20s);
        if (!status) {
            service->kill();
            ADD_FAILURE() << "tarvek-lamps still runs 20 s after its bus went away";
            return -1;
        }
        return WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    }

    std::optional<PrivateBus> daemon{std::in_place};
    TemporaryDirectory directory;
    BusPtr client{daemon->connect()};
    std::unique_ptr<ServiceProcess> service;
};

TEST_F(LampsLoopTest, ABusThatGoesAwayEndsTheServiceWithStatus1AndOneLine)
{
    start_service();
    client.reset();
    daemon.reset();

    EXPECT_EQ(exit_status(), 1);
    std::vector<std::string> const lines = lines_of(service->read_stderr(5s));
    ASSERT_EQ(lines.size(), 1U) << ::testing::PrintToString(lines);
    EXPECT_TRUE(lines.front().starts_with("tarvek-lamps: process: Connection to the bus lost: ")) << lines.front();
}

TEST_F(LampsLoopTest, AServiceThatLosesItsBusSavesItsStateFirst)
{
    auto const state = directory.path() / "state";
    start_service({"--state-dir", state.string()});
    CallResult const written = set(client.get(), lamp1_path, lamp_interface, "Label",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "s", "kept across the loss"); });
    ASSERT_TRUE(written.ok()) << written.error_name << ": " << written.error_message;
    client.reset();
    daemon.reset();

    EXPECT_EQ(exit_status(), 1);
    std::ifstream in(state / "org:sample:lamps:lamp1.json");
    std::string const saved((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(saved.find("kept across the loss"), std::string::npos) << saved;
}

// A write that reaches lamp2 after its removal makes the server report the change of an
// object that it no longer has: a failed task out of process(), which the service notes
// once and survives. All three calls are read while lamp1 sleeps on the lamps' shared
// executor, so they run on it in this order.
TEST_F(LampsLoopTest, AFailedTaskIsReportedOnceAndTheServiceGoesOnAnswering)
{
    start_service();
    PendingCall sleep(client.get(), lamp1_path, lamp_interface, "Sleep",
        [](sd_bus_message* m) { sd_bus_message_append(m, "u", 1500U); });
    PendingCall removal(client.get(), root_path, manager_interface, "RemoveLamp",
        [](sd_bus_message* m) { sd_bus_message_append(m, "o", lamp2_path); });
    PendingCall write(client.get(), lamp2_path, extended_interface, "SetMany",
        [](sd_bus_message* m) { sd_bus_message_append(m, "sa(sv)", lamp_interface, 1, "Level", "u", 5U); });
    for (PendingCall* pending : {&sleep, &removal, &write})
        ASSERT_TRUE(pending->wait()) << "a call was never answered";

    EXPECT_EQ(property(client.get(), lamp1_path, lamp_interface, "Level"), "<u 0>");
    service->signal(SIGTERM);
    EXPECT_EQ(exit_status(), 0);
    std::vector<std::string> const lines = lines_of(service->read_stderr(5s));
    ASSERT_EQ(lines.size(), 1U) << ::testing::PrintToString(lines);
    EXPECT_TRUE(lines.front().starts_with("tarvek-lamps: No such object: ")) << lines.front();
}

} // namespace
} // namespace tarvek::test::lamps
