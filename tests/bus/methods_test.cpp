// SPDX-License-Identifier: LGPL-2.1-or-later
// Method calls on the bus: results, the bus error of each exception class, calls that
// wait on the object's executor, and objects that go while a call is under way.
#include "bus/bus_fixture.hpp"

#include <tarvek/executors/injector.hpp>

namespace tarvek::test {
namespace {

constexpr char const* lamp_path = "/org/sample/lamp";
constexpr char const* lamp = "org.sample.Lamp";

// A call sent without waiting; the reply is collected by pumping the client.
struct PendingCall {
    static int on_reply(sd_bus_message* reply, void* userdata, sd_bus_error*)
    {
        auto& self = *static_cast<PendingCall*>(userdata);
        self.reply.reset(sd_bus_message_ref(reply));
        return 0;
    }

    ~PendingCall() { sd_bus_slot_unref(slot); }

    sd_bus_slot* slot = nullptr;
    MessagePtr reply;
};

class MethodsTest : public BusTest {
protected:
    MethodsTest()
        : lamp_object(publish_lamp(lamp_path))
    {
    }

    void send(PendingCall& pending, char const* member)
    {
        MessagePtr message = new_call(lamp_path, lamp, member);
        ASSERT_GE(sd_bus_call_async(client.get(), &pending.slot, message.get(), &PendingCall::on_reply,
                      &pending, 10'000'000),
            0);
        ASSERT_GE(sd_bus_flush(client.get()), 0);
    }

    Lamp& lamp_object;
};

TEST_F(MethodsTest, ACallReturnsTheMethodsResult)
{
    start();
    CallResult const result
        = call(lamp_path, lamp, "Add", [](sd_bus_message* m) { sd_bus_message_append(m, "ii", 2, 40); });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    std::int32_t sum = 0;
    ASSERT_GT(sd_bus_message_read(result.reply.get(), "i", &sum), 0);
    EXPECT_EQ(sum, 42);
}

TEST_F(MethodsTest, AMethodThatChangesAPropertyAnswersAfterItRan)
{
    start();
    CallResult const result = call(lamp_path, lamp, "Toggle");
    ASSERT_TRUE(result.ok()) << result.error_message;
    int on = 0;
    ASSERT_GT(sd_bus_message_read(result.reply.get(), "b", &on), 0);
    EXPECT_TRUE(on);
    EXPECT_TRUE(lamp_object.on.get());
}

TEST_F(MethodsTest, EachExceptionClassBecomesItsBusError)
{
    start();
    struct Row {
        char const* kind;
        char const* name;
        char const* text;
    };
    Row const rows[] = {
        {"unknown_method", "org.freedesktop.DBus.Error.UnknownMethod", "no such method"},
        {"unknown_property", "org.freedesktop.DBus.Error.UnknownProperty", "no such property"},
        {"unknown_interface", "org.freedesktop.DBus.Error.UnknownInterface", "no such interface"},
        {"property_readonly", "org.freedesktop.DBus.Error.PropertyReadOnly", "read only"},
        {"authorization_failure", "org.freedesktop.DBus.Error.AuthFailed", "cannot ask"},
        {"access_denied", "org.freedesktop.DBus.Error.AccessDenied", "not you"},
        {"validation_failed", "org.freedesktop.DBus.Error.InvalidArgs", "bad value"},
        {"invalid_argument", "org.freedesktop.DBus.Error.InvalidArgs", "bad argument"},
        {"out_of_range", "org.freedesktop.DBus.Error.InvalidArgs", "too far"},
        {"internal_error", "org.freedesktop.DBus.Error.Failed", "broken 100% inside"},
        {"runtime_error", "org.freedesktop.DBus.Error.Failed", "plain failure"},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.kind);
        CallResult const result = call(
            lamp_path, lamp, "Fail", [&](sd_bus_message* m) { sd_bus_message_append(m, "s", row.kind); });
        EXPECT_EQ(result.error_name, row.name);
        EXPECT_EQ(result.error_message, row.text);
    }
}

TEST_F(MethodsTest, AWrongArgumentSignatureIsRefusedBySdBus)
{
    start();
    CallResult const result
        = call(lamp_path, lamp, "Add", [](sd_bus_message* m) { sd_bus_message_append(m, "s", "two"); });
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(MethodsTest, AnUnknownMethodIsRefusedBySdBus)
{
    start();
    CallResult const result = call(lamp_path, lamp, "Explode");
    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.UnknownMethod");
}

TEST_F(MethodsTest, ASlowMethodDoesNotHoldUpReads)
{
    std::promise<void> release;
    lamp_object.release = release.get_future().share();
    std::future<void> entered = lamp_object.entered.get_future();
    start();

    PendingCall slow;
    send(slow, "Wait");
    ASSERT_EQ(entered.wait_for(std::chrono::seconds(10)), std::future_status::ready);

    // The object's thread is busy; the server's isn't.
    CallResult const read = get(lamp_path, lamp, "Level", "u");
    EXPECT_TRUE(read.ok()) << read.error_message;
    EXPECT_FALSE(slow.reply);

    release.set_value();
    ASSERT_TRUE(pump_until([&] { return slow.reply != nullptr; }));
    ASSERT_FALSE(sd_bus_message_is_method_error(slow.reply.get(), nullptr));
    std::uint32_t value = 0;
    ASSERT_GT(sd_bus_message_read(slow.reply.get(), "u", &value), 0);
    EXPECT_EQ(value, 7U);
}

TEST_F(MethodsTest, AnObjectRemovedWhileItsCallWaitsGetsAnErrorReply)
{
    publish_lamp("/org/sample/other");
    tarvek::Object& doomed = objects.front();
    start();

    // Holds the object's executor, so that the call stays queued behind this task.
    std::promise<void> unblock;
    std::shared_future<void> blocked = unblock.get_future().share();
    std::promise<void> running;
    detail::executors::Injector(object_loop.executor()).submit([&running, blocked] {
        running.set_value();
        blocked.wait();
    });
    ASSERT_EQ(running.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);

    PendingCall pending;
    send(pending, "Toggle");
    // Time for the server to read the call and queue it on the object's executor.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    remove_object(doomed);
    unblock.set_value();

    ASSERT_TRUE(pump_until([&] { return pending.reply != nullptr; }));
    sd_bus_error const* error = sd_bus_message_get_error(pending.reply.get());
    ASSERT_NE(error, nullptr);
    EXPECT_STREQ(error->name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_STREQ(error->message, "Object removed");

    // The server goes on serving the other object.
    CallResult const read = get("/org/sample/other", lamp, "Level", "u");
    EXPECT_TRUE(read.ok()) << read.error_message;
    EXPECT_TRUE(server_errors().empty());
}

TEST_F(MethodsTest, ACallQueuedBeforeItsObjectLeavesTheBusIsStillAnswered)
{
    start();
    std::promise<void> unblock;
    std::shared_future<void> blocked = unblock.get_future().share();
    std::promise<void> running;
    detail::executors::Injector(object_loop.executor()).submit([&running, blocked] {
        running.set_value();
        blocked.wait();
    });
    ASSERT_EQ(running.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);

    PendingCall pending;
    send(pending, "Toggle");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    registry.remove_object(ObjectPath(lamp_path));
    unblock.set_value();

    ASSERT_TRUE(pump_until([&] { return pending.reply != nullptr; }));
    // The reply needs nothing of the bus object, which has gone by now.
    ASSERT_FALSE(sd_bus_message_is_method_error(pending.reply.get(), nullptr));
    int on = 0;
    ASSERT_GT(sd_bus_message_read(pending.reply.get(), "b", &on), 0);
    EXPECT_TRUE(on);
    // The change that the call made may be reported after the removal, and then finds no
    // object: that is the one failure the server may report here.
    for (std::string const& error : server_errors())
        EXPECT_EQ(error.rfind("No such object: ", 0), 0U) << error;
}

TEST_F(MethodsTest, WorkDroppedByAClosingExecutorAnswersRequestLost)
{
    // An object on an executor of its own that nobody drives: its work stays queued until
    // the object ends and closes it.
    tarvek::Object& idle = objects.emplace_back();
    Lamp& idle_lamp = provider::add_interface<Lamp>(idle);
    registry.add_object(idle, ObjectPath("/org/sample/idle"));
    start();

    PendingCall toggle;
    MessagePtr call = new_call("/org/sample/idle", lamp, "Toggle");
    ASSERT_GE(sd_bus_call_async(
                  client.get(), &toggle.slot, call.get(), &PendingCall::on_reply, &toggle, 10'000'000),
        0);
    PendingCall write;
    MessagePtr set = new_call("/org/sample/idle", "com.omno.ExtendedProperties", "SetMany");
    sd_bus_message_append(set.get(), "sa(sv)", lamp, 1, "Level", "u", 4U);
    ASSERT_GE(
        sd_bus_call_async(client.get(), &write.slot, set.get(), &PendingCall::on_reply, &write, 10'000'000),
        0);
    ASSERT_GE(sd_bus_flush(client.get()), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(idle_lamp.level.get(), 0U);

    remove_object(idle);
    ASSERT_TRUE(pump_until([&] { return toggle.reply && write.reply; }));
    for (PendingCall const* pending : {&toggle, &write}) {
        sd_bus_error const* error = sd_bus_message_get_error(pending->reply.get());
        ASSERT_NE(error, nullptr);
        EXPECT_STREQ(error->name, "com.omno.Error.RequestLost");
    }
}

TEST_F(MethodsTest, ASignalOfTheInterfaceReachesTheBus)
{
    start();
    watch(lamp, "Blinked");
    lamp_object.blinked.emit(99);
    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    std::uint64_t value = 0;
    ASSERT_GT(sd_bus_message_read(signals.front().get(), "t", &value), 0);
    EXPECT_EQ(value, 99U);
    EXPECT_STREQ(sd_bus_message_get_path(signals.front().get()), lamp_path);
}

} // namespace
} // namespace tarvek::test
