// SPDX-License-Identifier: LGPL-2.1-or-later
// The typed client of the test fixture against a real DBusServer on a private bus: calls
// with typed arguments and replies, bus errors, properties, signals and calls kept
// outstanding together.
#include "bus/bus_fixture.hpp"

#include <tarvek/testing/client.hpp>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace tarvek::test {
namespace {

using namespace std::chrono_literals;

// Values of several kinds, handed back as they came.
class Echo : public provider::Interface {
public:
    Echo() : Interface("org.sample.Echo") {}

    using Table = std::map<std::string, std::vector<std::uint32_t>>;
    using Record = std::tuple<std::string, double, bool, ObjectPath>;

    Method table{*this, "Table", [](Table value) { return value; }};
    Method record{*this, "Record", [](Record value) { return value; }};
    Method nothing{*this, "Nothing", [] {}};
};

class ClientTest : public BusTest {
protected:
    ClientTest()
        : lamp_object(publish_lamp("/org/sample/lamp"))
    {
        publish("/org/sample/echo", [this](tarvek::Object& object) {
            provider::add_interface<Echo>(object);
        });
        start();
    }

    Lamp& lamp_object;
    Client caller{daemon.address()};
    Proxy lamp{caller, server_name, "/org/sample/lamp", "org.sample.Lamp"};
    Proxy echo{caller, server_name, "/org/sample/echo", "org.sample.Echo"};
};

TEST_F(ClientTest, ATypedCallReturnsTheTypedReply)
{
    Result<std::int32_t> const sum = lamp.call<std::int32_t>("Add", 2, 40);
    ASSERT_TRUE(sum.ok()) << sum;
    EXPECT_EQ(sum.value(), 42);
}

TEST_F(ClientTest, ContainersAndStructuresMakeTheRoundTrip)
{
    Echo::Table const table{{"a", {1U, 2U}}, {"b", {}}, {"c", {4000000000U}}};
    EXPECT_EQ(echo.call<Echo::Table>("Table", table).value(), table);
    Echo::Record const record{"text", 0.25, true, ObjectPath("/org/sample")};
    EXPECT_EQ(echo.call<Echo::Record>("Record", record).value(), record);
    EXPECT_TRUE(echo.call("Nothing").ok());
}

TEST_F(ClientTest, ABusErrorComesBackWithItsNameAndText)
{
    Result<void> const failed = lamp.call("Fail", "invalid_argument");
    ASSERT_FALSE(failed.ok());
    EXPECT_EQ(failed.error().name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(failed.error().message, "bad argument");
    EXPECT_THROW(failed.value(), tarvek::invalid_state_error);
}

TEST_F(ClientTest, AnUnknownMethodIsABusErrorToo)
{
    Result<std::int32_t> const missing = lamp.call<std::int32_t>("NoSuchMethod");
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.error().name, "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_THROW(missing.value(), tarvek::invalid_state_error);
}

TEST_F(ClientTest, AReplyOfAnotherTypeRaisesNamingBothSignatures)
{
    try {
        lamp.call<std::string>("Add", 1, 2);
        FAIL() << "an i was read as an s";
    } catch (tarvek::deserialize_error const& error) {
        EXPECT_STREQ(error.what(), "read: the message carries \"i\", not \"s\"");
    }
}

TEST_F(ClientTest, GetReadsAPropertyAsItsType)
{
    EXPECT_EQ(lamp.get<std::string>("Label").value(), "lamp");
    EXPECT_EQ(lamp.get<std::uint32_t>("Level").value(), 0U);
    EXPECT_THROW(lamp.get<std::int32_t>("Level"), tarvek::deserialize_error);
    EXPECT_EQ(lamp.get<bool>("Nothing").error().name, "org.freedesktop.DBus.Error.UnknownProperty");
}

TEST_F(ClientTest, SetWritesAPropertyAndARefusedSetAnswersTheError)
{
    ASSERT_TRUE(lamp.set("Level", 40U).ok());
    EXPECT_EQ(lamp_object.level.get(), 40U);
    EXPECT_EQ(lamp.get<std::uint32_t>("Level").value(), 40U);

    Result<void> const refused = lamp.set("Label", "other");
    EXPECT_EQ(refused.error().name, "org.freedesktop.DBus.Error.PropertyReadOnly");
    EXPECT_EQ(lamp_object.label.get(), "lamp");
}

TEST_F(ClientTest, GetAllReadsEveryPropertyWithItsSignature)
{
    lamp_object.level.set(7U);
    auto const all = lamp.get_all();
    ASSERT_TRUE(all.ok()) << all;
    ASSERT_EQ(all->size(), 3U);
    EXPECT_EQ(all->at("On").signature(), "b");
    EXPECT_FALSE(all->at("On").as<bool>());
    EXPECT_EQ(all->at("Level").as<std::uint32_t>(), 7U);
    EXPECT_EQ(all->at("Level").as<std::uint32_t>(), 7U) << "a value reads again";
    EXPECT_EQ(all->at("Label").as<std::string>(), "lamp");
    EXPECT_THROW(all->at("Label").as<std::uint32_t>(), tarvek::deserialize_error);
}

TEST_F(ClientTest, ASignalIsAwaitedWithItsValues)
{
    SignalWatch blinked = lamp.watch("Blinked");
    lamp_object.blinked.emit(9U);
    auto const value = blinked.next<std::uint64_t>(10s);
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(*value, 9U);
}

TEST_F(ClientTest, WaitingForASignalThatDoesNotComeTimesOut)
{
    SignalWatch blinked = lamp.watch("Blinked");
    EXPECT_FALSE(blinked.next<std::uint64_t>(200ms).has_value());
    EXPECT_EQ(blinked.pending(), 0U);
}

TEST_F(ClientTest, APendingCallAnswersAnErrorToo)
{
    PendingCall<> failing = lamp.call_async("Fail", "access_denied");
    Result<void> const result = failing.wait();
    EXPECT_EQ(result.error().name, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(result.error().message, "not you");
}

// The peer here is a bare sd-bus connection of the test, which receives all three calls
// before it answers any, and answers them in an order of its own.
TEST(PendingCall, SeveralCallsOutstandingAreAnsweredOutOfOrder)
{
    PrivateBus bus;
    BusPtr peer(bus.connect());
    Client caller(bus.address());
    Proxy const hold{caller, unique_name(peer.get()), "/test", "com.omno.Test"};
    std::vector<PendingCall<std::uint32_t>> calls;
    for (std::uint32_t id = 1; id <= 3; ++id)
        calls.push_back(hold.call_async<std::uint32_t>("Hold", id));

    std::map<std::uint32_t, MessagePtr> received;
    for (int i = 0; i < 3; ++i) {
        MessagePtr call = receive_method_call(peer.get(), 10s);
        std::uint32_t id = 0;
        ASSERT_GE(sd_bus_message_read(call.get(), "u", &id), 0);
        received.emplace(id, std::move(call));
    }
    auto const answer = [&](std::uint32_t id) {
        ASSERT_GE(sd_bus_reply_method_return(received.at(id).get(), "u", id * 10), 0);
        ASSERT_GE(sd_bus_flush(peer.get()), 0);
    };
    EXPECT_FALSE(calls[0].answered() || calls[1].answered() || calls[2].answered());
    answer(3);
    EXPECT_EQ(calls[2].wait().value(), 30U);
    answer(1);
    EXPECT_EQ(calls[0].wait().value(), 10U);
    EXPECT_FALSE(calls[1].answered());
    answer(2);
    EXPECT_EQ(calls[1].wait().value(), 20U);
}

TEST(PendingCall, ACallNobodyAnswersEndsInTheTimeOut)
{
    PrivateBus bus;
    BusPtr peer(bus.connect());
    Client caller(bus.address(), 300ms);
    PendingCall<> silent = caller.call_async(unique_name(peer.get()), "/test", "com.omno.Test", "Silent");
    EXPECT_EQ(silent.wait().error().name, "org.freedesktop.DBus.Error.NoReply");
}

TEST(Client, WaitsForABusNameUntilItIsOwned)
{
    PrivateBus bus;
    Client caller(bus.address());
    EXPECT_FALSE(caller.wait_for_name("org.sample.Later", 50ms));
    BusPtr service(bus.connect());
    ASSERT_GE(sd_bus_request_name(service.get(), "org.sample.Later", 0), 0);
    EXPECT_TRUE(caller.wait_for_name("org.sample.Later", 10s));
}

} // namespace
} // namespace tarvek::test
