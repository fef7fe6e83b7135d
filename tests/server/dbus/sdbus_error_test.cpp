// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/sdbus_error.hpp"

#include <tarvek/common/exceptions.hpp>

#include "support/private_bus.hpp"

#include <boost/thread/futures/future_error.hpp>
#include <boost/throw_exception.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <string>

using tarvek::server::dbus::convert_exception;
using tarvek::server::dbus::SDBusError;
using tarvek::server::dbus::SDBusInboundMessage;
using tarvek::server::dbus::send_error_reply;
using tarvek::test::MessagePtr;

namespace {

// Raises the way the library does, so that the class arrives wrapped by Boost.
template <class E>
std::exception_ptr raised(E const& error)
{
    try {
        boost::throw_exception(error);
    } catch (...) {
        return std::current_exception();
    }
}

struct Converted {
    std::string name;
    std::string text;
    int result;
};

template <class E>
Converted convert(E const& error)
{
    SDBusError converted = convert_exception(raised(error));
    return {converted.name, converted.message, converted.result};
}

// Swaps std::cerr for a buffer for as long as it lives.
class CapturedCerr {
public:
    CapturedCerr() : saved(std::cerr.rdbuf(buffer.rdbuf())) {}
    ~CapturedCerr() { std::cerr.rdbuf(saved); }
    std::string text() const { return buffer.str(); }

private:
    std::ostringstream buffer;
    std::streambuf* saved;
};

} // namespace

TEST(SDBusError, StartsEmpty)
{
    SDBusError const error;
    EXPECT_EQ(error.name, nullptr);
    EXPECT_EQ(error.message, nullptr);
    EXPECT_EQ(error.result, 0);
}

TEST(SDBusError, KeepsTheErrnoValueThatSdBusMapsTheNameTo)
{
    SDBusError const error(tarvek::invalid_argument("x"));
    EXPECT_EQ(error.result, -EINVAL);
}

TEST(SDBusError, MovesThroughSdBusErrorMove)
{
    SDBusError source(tarvek::access_denied("no"));
    SDBusError const target(std::move(source));
    EXPECT_STREQ(target.name, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_STREQ(target.message, "no");
    EXPECT_EQ(target.result, -EACCES);
    EXPECT_EQ(source.name, nullptr);
}

TEST(ConvertException, GivesEachLibraryClassItsOwnName)
{
    EXPECT_EQ(convert(tarvek::unknown_method("m")).name, "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(convert(tarvek::unknown_interface("i")).name, "org.freedesktop.DBus.Error.UnknownInterface");
    EXPECT_EQ(convert(tarvek::authorization_failure("a")).name, "org.freedesktop.DBus.Error.AuthFailed");
    EXPECT_EQ(convert(tarvek::access_denied("d")).name, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(convert(tarvek::invalid_argument("v")).name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(convert(tarvek::out_of_range("o")).name, "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST(ConvertException, GivesANamedErrorExactlyItsNameAndText)
{
    Converted const converted = convert(tarvek::named_error("org.sample.Lamp.Error.Broken", "50% broken"));
    EXPECT_EQ(converted.name, "org.sample.Lamp.Error.Broken");
    EXPECT_EQ(converted.text, "50% broken");
    // sd-bus knows no errno value for a name of the application's: the generic one.
    EXPECT_EQ(converted.result, -EIO);
}

TEST(ConvertException, GivesANamedErrorAStandardNameIfTheApplicationChoseOne)
{
    Converted const converted = convert(tarvek::named_error("org.freedesktop.DBus.Error.InvalidArgs", "own text"));
    EXPECT_EQ(converted.name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(converted.text, "own text");
    EXPECT_EQ(converted.result, -EINVAL);
}

TEST(ConvertException, GivesUnknownPropertyItsOwnNameThoughItIsAnOutOfRange)
{
    Converted const converted = convert(tarvek::unknown_property("no such property"));
    EXPECT_EQ(converted.name, "org.freedesktop.DBus.Error.UnknownProperty");
    EXPECT_EQ(converted.text, "no such property");
}

TEST(ConvertException, GivesPropertyReadonlyItsOwnNameThoughItIsAnInvalidArgument)
{
    EXPECT_EQ(convert(tarvek::property_readonly("Property p is readonly")).name,
              "org.freedesktop.DBus.Error.PropertyReadOnly");
}

TEST(ConvertException, GivesValidationFailedInvalidArgs)
{
    Converted const converted = convert(tarvek::validation_failed("com.omno.Test: Property validation failure"));
    EXPECT_EQ(converted.name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(converted.text, "com.omno.Test: Property validation failure");
}

TEST(ConvertException, GivesOtherExceptionsFailedWithTheirText)
{
    Converted const internal = convert(tarvek::internal_error("inside"));
    EXPECT_EQ(internal.name, "org.freedesktop.DBus.Error.Failed");
    EXPECT_EQ(internal.text, "inside");
    tarvek::system_error const system(EIO, "could not append");
    Converted const converted_system = convert(system);
    EXPECT_EQ(converted_system.name, "org.freedesktop.DBus.Error.Failed");
    EXPECT_EQ(converted_system.text, system.what());
    Converted const runtime = convert(std::runtime_error("plain"));
    EXPECT_EQ(runtime.name, "org.freedesktop.DBus.Error.Failed");
    EXPECT_EQ(runtime.text, "plain");
}

TEST(ConvertException, GivesAReplyTooLargeForTheBusLimitsExceeded)
{
    Converted const converted = convert(tarvek::server::dbus::limits_exceeded("Reply too large for the bus"));
    EXPECT_EQ(converted.name, "org.freedesktop.DBus.Error.LimitsExceeded");
    EXPECT_EQ(converted.text, "Reply too large for the bus");
}

TEST(ConvertException, GivesABrokenPromiseRequestLostWithBoostsText)
{
    Converted const converted = convert(boost::broken_promise());
    EXPECT_EQ(converted.name, "com.omno.Error.RequestLost");
    EXPECT_EQ(converted.text, boost::broken_promise().what());
}

TEST(ConvertException, PassesATextWithPercentSignsUnchanged)
{
    EXPECT_EQ(convert(tarvek::invalid_argument("100% %s %d %n")).text, "100% %s %d %n");
}

TEST(ConvertException, LetsAnExceptionThatIsNoStdExceptionPass)
{
    EXPECT_THROW(convert_exception(std::make_exception_ptr(42)), int);
}

TEST(SendErrorReply, OnAnEmptyHandleWritesOneLineAndRaisesInvalidArgument)
{
    SDBusInboundMessage const empty(nullptr);
    CapturedCerr cerr;
    EXPECT_THROW(send_error_reply(empty, raised(tarvek::unknown_property("p"))), tarvek::invalid_argument);
    EXPECT_EQ(cerr.text(), "Unable to handle exception: empty message\n");
}

TEST(SendErrorReply, LetsAnExceptionThatIsNoStdExceptionPassWithoutALine)
{
    SDBusInboundMessage const empty(nullptr);
    CapturedCerr cerr;
    EXPECT_THROW(send_error_reply(empty, std::make_exception_ptr(42)), int);
    EXPECT_EQ(cerr.text(), "");
}

class SendErrorReplyOnTheBus : public ::testing::Test {
protected:
    tarvek::test::PrivateBus daemon;
    tarvek::test::BusPtr bus{daemon.connect()};
    MessagePtr call = tarvek::test::send_to_self(bus.get(), tarvek::test::new_call_to_self(bus.get()).get());
    SDBusInboundMessage inbound{call.get()};

    MessagePtr answer()
    {
        std::uint64_t cookie = 0;
        EXPECT_GE(sd_bus_message_get_cookie(call.get(), &cookie), 0);
        return tarvek::test::receive_reply(bus.get(), cookie);
    }
};

TEST_F(SendErrorReplyOnTheBus, SendsTheErrorAndReturnsItsResult)
{
    SDBusError error(tarvek::unknown_method("Interface: x has no method named y"));
    EXPECT_EQ(send_error_reply(inbound, std::move(error)), -EBADR);
    MessagePtr reply = answer();
    sd_bus_error const* const received = sd_bus_message_get_error(reply.get());
    ASSERT_NE(received, nullptr);
    EXPECT_STREQ(received->name, "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_STREQ(received->message, "Interface: x has no method named y");
}

TEST_F(SendErrorReplyOnTheBus, ConvertsAnExceptionAndSendsItAsTheError)
{
    int const result = send_error_reply(inbound, raised(boost::broken_promise()));
    EXPECT_LT(result, 0);
    MessagePtr reply = answer();
    EXPECT_STREQ(sd_bus_message_get_error(reply.get())->name, "com.omno.Error.RequestLost");
}

TEST_F(SendErrorReplyOnTheBus, WritesALineAndRaisesAgainWhenTheSendFails)
{
    sd_bus_close(bus.get());
    CapturedCerr cerr;
    EXPECT_THROW(send_error_reply(inbound, raised(tarvek::access_denied("no"))), tarvek::system_error);
    EXPECT_EQ(cerr.text().rfind("Unable to handle exception: send failed", 0), 0u);
}
