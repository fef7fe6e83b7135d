// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/callback_guard.hpp"

#include <tarvek/common/exceptions.hpp>

#include "support/private_bus.hpp"

#include <boost/throw_exception.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>

using tarvek::server::dbus::guard_getter;
using tarvek::server::dbus::guard_handler;
using tarvek::test::MessagePtr;

namespace {

class CallbackGuardTest : public ::testing::Test {
protected:
    tarvek::test::PrivateBus daemon;
    tarvek::test::BusPtr bus{daemon.connect()};
    MessagePtr call = tarvek::test::send_to_self(bus.get(), tarvek::test::new_call_to_self(bus.get()).get());
    sd_bus_error error = SD_BUS_ERROR_NULL;

    ~CallbackGuardTest() override { sd_bus_error_free(&error); }

    std::uint64_t cookie()
    {
        std::uint64_t value = 0;
        sd_bus_message_get_cookie(call.get(), &value);
        return value;
    }
};

TEST_F(CallbackGuardTest, PassesTheResultOfABodyThatSucceeds)
{
    EXPECT_EQ(guard_handler(call.get(), &error, [] { return 1; }), 1);
}

TEST_F(CallbackGuardTest, AnswersAFailingHandlerWithItsBusError)
{
    int const r = guard_handler(call.get(), &error, []() -> int {
        boost::throw_exception(tarvek::unknown_method("Interface: x has no method named y"));
    });
    // Handled: sd-bus must not answer a second time.
    EXPECT_EQ(r, 1);
    MessagePtr reply = tarvek::test::receive_reply(bus.get(), cookie());
    EXPECT_STREQ(sd_bus_message_get_error(reply.get())->name, "org.freedesktop.DBus.Error.UnknownMethod");
}

TEST_F(CallbackGuardTest, ReportsAnErrorTheBodyHasSentItselfAsHandled)
{
    EXPECT_EQ(guard_handler(call.get(), &error, [] { return -EACCES; }), 1);
}

TEST_F(CallbackGuardTest, LeavesAnErrorSetForSdBusToAnswer)
{
    int const r = guard_handler(call.get(), &error,
        [&] { return sd_bus_error_set(&error, "org.freedesktop.DBus.Error.PropertyReadOnly", "Property p is readonly"); });
    EXPECT_LT(r, 0);
    EXPECT_STREQ(error.name, "org.freedesktop.DBus.Error.PropertyReadOnly");
}

TEST_F(CallbackGuardTest, DropsARequestWhoseSenderHasGoneWithoutAnswer)
{
    int const r = guard_handler(call.get(), &error, []() -> int {
        boost::throw_exception(tarvek::server::dbus::sender_gone(ENXIO, "Could not get sender creds"));
    });
    EXPECT_EQ(r, 1);
    EXPECT_THROW(tarvek::test::receive_reply(bus.get(), cookie(), std::chrono::milliseconds(200)),
        std::runtime_error);
}

TEST_F(CallbackGuardTest, SwallowsAnExceptionThatIsNoStdException)
{
    EXPECT_EQ(guard_handler(call.get(), &error, []() -> int { throw 42; }), 1);
}

TEST_F(CallbackGuardTest, DropsTheRequestWhenEvenTheErrorReplyCannotGoOut)
{
    sd_bus_close(bus.get());
    int const r = guard_handler(call.get(), &error, []() -> int { throw std::runtime_error("plain"); });
    EXPECT_EQ(r, 1);
}

TEST(GetterGuard, PutsAFailureIntoSdBusErrorAndReturnsItsErrno)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    int const r = guard_getter(&error, []() -> int {
        boost::throw_exception(tarvek::unknown_property("Interface: x has no property named y"));
    });
    EXPECT_LT(r, 0);
    EXPECT_STREQ(error.name, "org.freedesktop.DBus.Error.UnknownProperty");
    EXPECT_STREQ(error.message, "Interface: x has no property named y");
    sd_bus_error_free(&error);
}

TEST(GetterGuard, ReturnsAnErrnoAlsoForAnExceptionThatIsNoStdException)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    EXPECT_LT(guard_getter(&error, []() -> int { throw 42; }), 0);
    sd_bus_error_free(&error);
}

} // namespace
