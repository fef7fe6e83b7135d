// SPDX-License-Identifier: LGPL-2.1-or-later
// The server's loop against what the bus does to it: replies larger than the socket takes
// at once go out without waiting for other traffic, and a connection that goes away is
// reported once, after which the loop stays quiet.
#include "bus/bus_fixture.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/executors/injector.hpp>

#include <future>
#include <optional>

#include <poll.h>
#include <sys/socket.h>

namespace tarvek::test {
namespace {

using namespace std::chrono_literals;

constexpr char const* note_path = "/org/sample/note";
constexpr char const* second_note_path = "/org/sample/note2";
constexpr char const* note = "org.sample.Note";
constexpr char const* lamp_path = "/org/sample/lamp";

// The server's socket gets a small send buffer, so that a message of a few MiB is far
// beyond what it holds at once, whatever the system's defaults, and sanitizer builds
// don't spend long on the test.
constexpr int send_buffer = 64 << 10;
constexpr std::size_t large = 4U << 20U;

void narrow_send_buffer(sd_bus* bus)
{
    if (::setsockopt(sd_bus_get_fd(bus), SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof send_buffer) != 0)
        throw std::runtime_error("setsockopt SO_SNDBUF failed");
}

class Note : public provider::Interface {
public:
    Note()
        : Interface(note)
    {
    }

    Property<std::string> text{*this, "Text", ""};
};

// A call sent without waiting; the answer arrives while the client's connection is
// processed.
class Pending {
public:
    Pending(sd_bus* bus, sd_bus_message* call)
    {
        if (sd_bus_call_async(bus, &slot, call, &Pending::on_reply, this, 60'000'000) < 0)
            throw std::runtime_error("sd_bus_call_async failed");
    }
    Pending(Pending const&) = delete;
    Pending& operator=(Pending const&) = delete;
    ~Pending() { sd_bus_slot_unref(slot); }

    bool answered = false;
    std::string error;
    MessagePtr reply;

private:
    static int on_reply(sd_bus_message* message, void* userdata, sd_bus_error*)
    {
        auto* self = static_cast<Pending*>(userdata);
        self->answered = true;
        if (sd_bus_message_is_method_error(message, nullptr))
            self->error = sd_bus_message_get_error(message)->name;
        self->reply.reset(sd_bus_message_ref(message));
        return 1;
    }

    sd_bus_slot* slot = nullptr;
};

// Processes every connection in `buses` until `done`, or false after `timeout`.
bool pump_all(std::vector<sd_bus*> const& buses, std::function<bool()> const& done, std::chrono::milliseconds timeout)
{
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        bool busy = false;
        for (sd_bus* bus : buses) {
            int const r = sd_bus_process(bus, nullptr);
            if (r < 0)
                throw std::runtime_error("sd_bus_process failed");
            busy = busy || r > 0;
        }
        if (!busy) {
            std::vector<pollfd> entries;
            for (sd_bus* bus : buses)
                entries.push_back({sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0});
            ::poll(entries.data(), entries.size(), 20);
        }
    }
    return true;
}

class LargeMessageTest : public BusTest {
protected:
    LargeMessageTest()
    {
        publish(note_path, [this](tarvek::Object& object) { note_object = &provider::add_interface<Note>(object); });
        publish(second_note_path,
            [this](tarvek::Object& object) { second_note = &provider::add_interface<Note>(object); });
        publish_lamp(lamp_path);
        narrow_send_buffer(server_connection.get());
        start();
    }

    MessagePtr set_call(std::string const& value)
    {
        MessagePtr message = new_call(note_path, "org.freedesktop.DBus.Properties", "Set");
        sd_bus_message_append(message.get(), "ssv", note, "Text", "s", value.c_str());
        return message;
    }
    MessagePtr get_call(char const* path, char const* interface, char const* property)
    {
        MessagePtr message = new_call(path, "org.freedesktop.DBus.Properties", "Get");
        sd_bus_message_append(message.get(), "ss", interface, property);
        return message;
    }

    Note* note_object = nullptr;
    Note* second_note = nullptr;
};

// Nothing else is sent to the service while the test waits, so only the server itself can
// bring the rest of an answer out of sd-bus's queue.
TEST_F(LargeMessageTest, ALargeValueIsWrittenAndReadBackWithoutFurtherTraffic)
{
    std::string const value(large, 'x');
    CallResult const written = call(set_call(value).get(), 30s);
    ASSERT_TRUE(written.ok()) << written.error_name << ": " << written.error_message;

    CallResult const read = call(get_call(note_path, note, "Text").get(), 30s);
    ASSERT_TRUE(read.ok()) << read.error_name << ": " << read.error_message;
    char const* got = nullptr;
    ASSERT_GE(sd_bus_message_enter_container(read.reply.get(), 'v', "s"), 0);
    ASSERT_GE(sd_bus_message_read(read.reply.get(), "s", &got), 0);
    EXPECT_EQ(std::string_view(got).size(), large);
    EXPECT_TRUE(server_errors().empty());
}

// Answers are not held behind large messages that the server has on their way out: another
// client's small call and then a large read are answered without any later message. Two
// changes of large values are more than the socket buffer holds, so a server that wrote
// only when a message came in would leave the rest, and the answers behind it, in its queue.
TEST_F(LargeMessageTest, AnswersAreNotHeldBehindLargeMessagesOnTheirWayOut)
{
    // Written on the objects' side: the change signals are the large messages.
    std::promise<void> written;
    detail::executors::Injector(object_loop.executor()).submit([&] {
        note_object->text.set(std::string(large, 'y'));
        second_note->text.set(std::string(large, 'z'));
        written.set_value();
    });
    written.get_future().wait();

    BusPtr other(daemon.connect());
    sd_bus_message* small_call = nullptr;
    ASSERT_GE(sd_bus_message_new_method_call(other.get(), &small_call, server_name.c_str(), lamp_path,
                  "org.freedesktop.DBus.Properties", "Get"),
        0);
    MessagePtr small(small_call);
    sd_bus_message_append(small.get(), "ss", "org.sample.Lamp", "Level");
    Pending small_read(other.get(), small.get());
    EXPECT_TRUE(pump_all({other.get()}, [&] { return small_read.answered; }, 30s))
        << "the small call waited behind the large messages";
    EXPECT_EQ(small_read.error, "");

    MessagePtr large_call = get_call(note_path, note, "Text");
    Pending large_read(client.get(), large_call.get());
    EXPECT_TRUE(pump_all({client.get()}, [&] { return large_read.answered; }, 30s)) << "the large answer never arrived";
    EXPECT_EQ(large_read.error, "");
    EXPECT_TRUE(server_errors().empty());
}

bool readable(int fd, std::chrono::milliseconds wait = 0ms)
{
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, static_cast<int>(wait.count())) == 1;
}

// A server on a bus of its own, driven by the test thread itself, so that each process()
// is seen.
class DrivenServerTest : public ::testing::Test {
protected:
    // Calls process() whenever the set is readable, until it has been quiet for `quiet`
    // or `rounds` calls are made; the texts of what it raised.
    std::vector<std::string> drive(int rounds, std::chrono::milliseconds quiet = 500ms)
    {
        std::vector<std::string> raised;
        for (int i = 0; i < rounds && readable(server->epoll_fd(), quiet); ++i) {
            try {
                server->process();
            } catch (server::connection_lost const& error) {
                raised.push_back(std::string("lost: ") + error.what());
            } catch (std::exception const& error) {
                raised.emplace_back(error.what());
            }
        }
        return raised;
    }

    PolicyFile policy{"allow * *\n"};
    std::optional<PrivateBus> daemon{std::in_place};
    BusPtr connection{daemon->connect()};
    std::optional<server::DBusServer> server{std::in_place, connection.get()};
};

using LostConnectionTest = DrivenServerTest;

TEST_F(LostConnectionTest, ABusThatGoesAwayIsReportedOnceAndTheLoopFallsQuiet)
{
    server->enable_incoming(true);
    EXPECT_TRUE(drive(10).empty());
    ASSERT_TRUE(server->connected());

    daemon.reset();
    std::vector<std::string> const raised = drive(1000);
    ASSERT_EQ(raised.size(), 1U);
    EXPECT_TRUE(raised.front().starts_with("lost: process: Connection to the bus lost: ")) << raised.front();
    EXPECT_FALSE(server->connected());
    EXPECT_EQ(server->get_bus_fd(), -1);
    EXPECT_FALSE(readable(server->epoll_fd()));
}

TEST_F(LostConnectionTest, TasksStillRunAfterTheLoss)
{
    server->enable_incoming(true);
    daemon.reset();
    ASSERT_EQ(drive(1000).size(), 1U);

    server->on_object_removed(ObjectPath("/nothing"));
    std::vector<std::string> const raised = drive(1000);
    ASSERT_EQ(raised.size(), 1U);
    EXPECT_EQ(raised.front(), "No such object: /nothing");
    EXPECT_FALSE(readable(server->epoll_fd()));
}

// The bus descriptor is disabled while not incoming, but a hang-up still makes the set
// readable; the server must notice rather than be called again and again.
TEST_F(LostConnectionTest, ALossWhileNotIncomingIsReportedToo)
{
    EXPECT_TRUE(drive(10).empty());
    ASSERT_EQ(::shutdown(server->get_bus_fd(), SHUT_RDWR), 0);
    std::vector<std::string> const raised = drive(1000);
    ASSERT_EQ(raised.size(), 1U);
    EXPECT_TRUE(raised.front().starts_with("lost: process: Connection to the bus lost: ")) << raised.front();
    EXPECT_FALSE(server->connected());
    EXPECT_FALSE(readable(server->epoll_fd()));

    // Opening the door afterwards changes nothing.
    server->enable_incoming(true);
    EXPECT_TRUE(drive(10).empty());
}

TEST_F(LostConnectionTest, ASocketThatFailsUnderTheServerIsReportedOnce)
{
    server->enable_incoming(true);
    EXPECT_TRUE(drive(10).empty());
    ASSERT_EQ(::shutdown(server->get_bus_fd(), SHUT_RDWR), 0);
    std::vector<std::string> const raised = drive(1000);
    ASSERT_EQ(raised.size(), 1U);
    EXPECT_TRUE(raised.front().starts_with("lost: ")) << raised.front();
    EXPECT_FALSE(readable(server->epoll_fd()));
}

int on_changed(sd_bus_message*, void* userdata, sd_bus_error*)
{
    ++*static_cast<int*>(userdata);
    return 0;
}

// Changes reported while the server doesn't serve the bus are sent at once; what the
// socket didn't take stays at sd-bus, and goes out once the door opens, without a client
// having to send anything to the service.
TEST_F(DrivenServerTest, OutputQueuedWhileIncomingIsOffGoesOutOnceItIsOn)
{
    narrow_send_buffer(connection.get());
    API_Registry registry;
    registry.add_server(*server);
    tarvek::Object first;
    tarvek::Object second;
    Note& first_note = provider::add_interface<Note>(first);
    Note& second_note = provider::add_interface<Note>(second);
    registry.add_object(first, ObjectPath(note_path));
    registry.add_object(second, ObjectPath(second_note_path));
    BusPtr client(daemon->connect());
    int changes = 0;
    sd_bus_slot* match = nullptr;
    ASSERT_GE(sd_bus_match_signal(client.get(), &match, nullptr, nullptr, "org.freedesktop.DBus.Properties",
                  "PropertiesChanged", &on_changed, &changes),
        0);
    EXPECT_TRUE(drive(10).empty());

    // Two large signals are more than the socket buffer holds.
    first_note.text.set(std::string(large, 'a'));
    second_note.text.set(std::string(large, 'b'));
    EXPECT_TRUE(drive(10).empty());
    server->enable_incoming(true);

    auto const deadline = std::chrono::steady_clock::now() + 30s;
    while (changes < 2 && std::chrono::steady_clock::now() < deadline) {
        if (readable(server->epoll_fd()))
            server->process();
        if (sd_bus_process(client.get(), nullptr) == 0)
            sd_bus_wait(client.get(), 10'000);
    }
    EXPECT_EQ(changes, 2);
    sd_bus_slot_unref(match);
    registry.remove_all();
    drive(10);
}

} // namespace
} // namespace tarvek::test
