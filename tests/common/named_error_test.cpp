// SPDX-License-Identifier: LGPL-2.1-or-later
// The application's named bus error: its name is checked where it is made, and it keeps
// name, text and class across a future.
#include <tarvek/common/exceptions.hpp>

#include <boost/thread/future.hpp>
#include <boost/throw_exception.hpp>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <thread>

TEST(NamedError, CarriesItsNameAndText)
{
    tarvek::named_error const error("org.sample.Lamp.Error.Broken", "The lamp is broken");
    EXPECT_STREQ(error.name(), "org.sample.Lamp.Error.Broken");
    EXPECT_STREQ(error.what(), "The lamp is broken");
}

TEST(NamedError, IsCaughtAsAnExceptionOfTheFamily)
{
    try {
        boost::throw_exception(tarvek::named_error("a.b", "x"));
    } catch (tarvek::exception const&) {
        SUCCEED();
        return;
    }
    FAIL() << "not caught as tarvek::exception";
}

TEST(NamedError, AcceptsNamesByTheRulesOfInterfaceNames)
{
    for (char const* name : {"a.b", "org.sample.Lamp.Error.Broken", "_x.y_2", "A.B9.C_"})
        EXPECT_TRUE(tarvek::named_error::is_valid_name(name)) << name;
    EXPECT_TRUE(tarvek::named_error::is_valid_name("a." + std::string(253, 'b')));
}

TEST(NamedError, RefusesAMalformedNameWhereItIsMade)
{
    for (char const* name : {"", "single", ".a.b", "a.b.", "a..b", "a.2b", "a.b-c", "a.b c", "a.ö"}) {
        EXPECT_FALSE(tarvek::named_error::is_valid_name(name)) << name;
        try {
            tarvek::named_error const error(name, "text");
            ADD_FAILURE() << "accepted " << name;
        } catch (tarvek::invalid_argument const& e) {
            EXPECT_EQ(std::string(e.what()), std::string("Not a valid D-Bus error name: ") + name);
        }
    }
    EXPECT_FALSE(tarvek::named_error::is_valid_name("a." + std::string(254, 'b'))) << "longer than 255";
}

TEST(NamedError, KeepsClassNameAndTextAcrossAFuture)
{
    boost::promise<void> promise;
    auto future = promise.get_future();
    std::thread([&] {
        promise.set_exception(boost::copy_exception(tarvek::named_error("org.sample.E", "far away")));
    }).join();
    try {
        future.get();
        FAIL() << "no exception";
    } catch (tarvek::named_error const& e) {
        EXPECT_STREQ(e.name(), "org.sample.E");
        EXPECT_STREQ(e.what(), "far away");
    }
}

TEST(NamedError, ACopyOutlivesTheOriginalWithItsName)
{
    std::optional<tarvek::named_error> copy;
    {
        tarvek::named_error const original("org.sample.E", "t");
        copy.emplace(original);
    }
    EXPECT_STREQ(copy->name(), "org.sample.E");
}

TEST(NamedError, APlainThrowIsCapturedWithItsClass)
{
    boost::exception_ptr captured;
    try {
        throw tarvek::named_error("org.sample.E", "plain");
    } catch (...) {
        captured = tarvek::capture_current_exception();
    }
    try {
        boost::rethrow_exception(captured);
    } catch (tarvek::named_error const& e) {
        EXPECT_STREQ(e.name(), "org.sample.E");
        return;
    } catch (...) {
    }
    FAIL() << "lost its class";
}
